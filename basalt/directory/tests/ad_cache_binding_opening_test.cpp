// Connections that take their time.
#include <gmock/gmock.h>

#include <condition_variable>
#include <mutex>
#include <utility>

#include "basalt/directory/ad_cache_binding.h"
#include "testsupport/manual_clock.h"
#include "testsupport/memory_directory.h"
#include "testsupport/no_further_thread.h"

namespace {

using std::chrono::milliseconds;
using testing::SizeIs;
using testsupport::MemoryDirectory;
using Kind = MemoryDirectory::Failure::Kind;

// A connector whose connections come about when the test lets them.
class SlowConnector : public DirectoryConnector {
 public:
  explicit SlowConnector(MemoryDirectory& directory) : m_directory(directory) {}
  std::unique_ptr<DirectoryConnection> open(const Target& target) override {
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_opening;
    m_changed.wait(lock, [&] { return m_free; });
    ++m_ended;
    // Held until the thread has ended, and so has handed over what this returns.
    std::notify_all_at_thread_exit(m_changed, std::move(lock));
    return m_directory.open(target);
  }
  std::string site(const std::string&) override { return {}; }
  // Returns when so many threads that opened a connection have ended.
  void awaitEnded(int threads) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [&] { return m_ended >= threads; });
  }
  void free() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_free = true;
    m_changed.notify_all();
  }
  int opening() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_opening;
  }

 private:
  MemoryDirectory& m_directory;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_free = false;
  int m_opening = 0;
  int m_ended = 0;
};

class CacheBindingOpening : public testing::Test {
 protected:
  CacheBindingOpening() { m_directory.add("CN=h1,DC=corp,DC=test", {{"cn", {"h1"}}}); }

  testsupport::ManualClock m_clock;
  MemoryDirectory m_directory{"corp.test"};
  testsupport::DirectoryInForce m_inForce{m_directory};
};

TEST_F(CacheBindingOpening, DoesNotWaitForeverForAConnection) {
  SlowConnector slow(m_directory);
  DirectoryConnector::setInstance(&slow);
  const milliseconds limit(50);
  ADCacheBinding binding(
      {"corp.test", false, "", "", ""}, [] { return "FILE:/agent"; }, limit);
  for (int i = 0; i < 2; ++i) {
    try {
      binding.search({});
      ADD_FAILURE();
    } catch (const LDAPException& failure) {
      EXPECT_STREQ(failure.what(), "No directory server of the domain 'corp.test' was reached within 50 milliseconds");
      EXPECT_TRUE(isServerUnavailable(failure));
    }
    m_clock.advance(ADCacheBinding::RETRY_PAUSE);
  }
  slow.free();
  // The one that was begun is taken, however late it came.
  while (!binding.isHealthy()) m_clock.advance(ADCacheBinding::RETRY_PAUSE);
  EXPECT_THAT(binding.search({"", SearchScope::Subtree, "(cn=h1)", {}}), SizeIs(1));
  EXPECT_EQ(slow.opening(), 1);
}

// Leaves a connection behind that comes about only when nobody waits for it any more.
void leaveBehind(ADCacheBinding& binding, SlowConnector& slow, testsupport::ManualClock& clock) {
  EXPECT_FALSE(binding.isHealthy());
  slow.free();
  slow.awaitEnded(1);
  clock.advance(std::chrono::hours(1));
}

TEST_F(CacheBindingOpening, TriesAnewWhereTheConnectionLeftBehindHasFailed) {
  SlowConnector slow(m_directory);
  DirectoryConnector::setInstance(&slow);
  ADCacheBinding binding(
      {"corp.test", false, "", "", ""}, [] { return "FILE:/agent"; }, std::chrono::seconds(2));
  m_directory.failOpen({Kind::Unreachable, -1, ""}, 1);
  leaveBehind(binding, slow, m_clock);
  EXPECT_THAT(binding.search({"", SearchScope::Subtree, "(cn=h1)", {}}), SizeIs(1));
  EXPECT_EQ(slow.opening(), 2);
}

TEST_F(CacheBindingOpening, OpensAnewWhereTheConnectionLeftBehindIsLost) {
  SlowConnector slow(m_directory);
  DirectoryConnector::setInstance(&slow);
  ADCacheBinding binding(
      {"corp.test", false, "", "", ""}, [] { return "FILE:/agent"; }, std::chrono::seconds(2));
  m_directory.failSearch({Kind::Gone, -1, ""}, 1);
  leaveBehind(binding, slow, m_clock);
  EXPECT_THAT(binding.search({"", SearchScope::Subtree, "(cn=h1)", {}}), SizeIs(1));
  EXPECT_EQ(slow.opening(), 2);
}

TEST_F(CacheBindingOpening, SaysThatNoThreadCanBeStarted) {
  ADCacheBinding binding({"corp.test", false, "", "", ""}, [] { return "FILE:/agent"; });
  {
    const testsupport::NoFurtherThread scarcity;
    try {
      binding.search({});
      ADD_FAILURE();
    } catch (const LDAPException& failure) {
      EXPECT_STREQ(failure.what(),
                   "Cannot start the thread that connects to the domain 'corp.test': Resource temporarily unavailable");
      EXPECT_TRUE(isServerUnavailable(failure));
    }
  }
  m_clock.advance(ADCacheBinding::RETRY_PAUSE);
  EXPECT_TRUE(binding.isHealthy());
}

TEST_F(CacheBindingOpening, EndsWithAConnectionThatIsBeingOpened) {
  SlowConnector slow(m_directory);
  DirectoryConnector::setInstance(&slow);
  {
    ADCacheBinding binding(
        {"corp.test", false, "", "", ""}, [] { return "FILE:/agent"; }, milliseconds(1));
    EXPECT_FALSE(binding.isHealthy());
    slow.free();
  }
  EXPECT_THAT(m_directory.opened(), SizeIs(1));
}

}  // namespace
