// What waits for nobody while the directory takes its time.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "testsupport/agent_in_force.h"
#include "testsupport/manual_clock.h"
#include "testsupport/memory_directory.h"

namespace {

using std::chrono::seconds;
using testsupport::MemoryDirectory;

// Gives no answer from `hold` until `letGo`.
class HeldDirectory : public DirectoryConnector {
 public:
  explicit HeldDirectory(MemoryDirectory& inner) : m_inner(inner) {}

  void hold() { set(true); }
  void letGo() { set(false); }
  // Does somebody wait for an answer?
  bool awaitQuestion() {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_until(lock, std::chrono::system_clock::now() + seconds(20), [&] { return m_waiting > 0; });
  }

  std::unique_ptr<DirectoryConnection> open(const Target& target) override {
    return std::make_unique<Connection>(*this, m_inner.open(target));
  }
  std::string site(const std::string& domain) override {
    pass();
    return m_inner.site(domain);
  }

 private:
  class Connection : public DirectoryConnection {
   public:
    Connection(HeldDirectory& directory, std::unique_ptr<DirectoryConnection> inner)
        : m_directory(directory), m_inner(std::move(inner)) {}
    std::vector<ADObjectPtr> search(const DirectorySearch& what) override {
      m_directory.pass();
      return m_inner->search(what);
    }
    ADObjectPtr rootDse() override { return m_inner->rootDse(); }

   private:
    HeldDirectory& m_directory;
    const std::unique_ptr<DirectoryConnection> m_inner;
  };

  void set(bool held) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_held = held;
    m_changed.notify_all();
  }
  void pass() {
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_waiting;
    m_changed.notify_all();
    m_changed.wait(lock, [&] { return !m_held; });
    --m_waiting;
  }

  MemoryDirectory& m_inner;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_held = false;
  int m_waiting = 0;
};

class AgentThatWaits : public testing::Test {
 protected:
  static MemoryDirectory& filled(MemoryDirectory& directory) {
    directory.add("CN=h1,DC=corp,DC=test", {{AD_CN, {"h1"}}});
    directory.setSite("Paris");
    return directory;
  }
  // Whether the result was there while the directory gave no answer, which ends now.
  template <class Result>
  bool isThere(const std::future<Result>& result) {
    const bool there = result.wait_for(seconds(20)) == std::future_status::ready;
    m_held.letGo();
    return there;
  }

  testsupport::ManualClock m_clock;
  MemoryDirectory m_directory{"corp.test"};
  testsupport::AgentInForce m_agent{filled(m_directory)};
  HeldDirectory m_held{m_directory};
  const testsupport::DirectoryInForce m_inForce{m_held};
};

TEST_F(AgentThatWaits, TellsTheLastSiteWhileItAsksForTheNext) {
  ASSERT_EQ(m_agent->siteName(), "Paris");
  m_directory.setSite("London");
  m_clock.advance(ADAgent::SITE_LIFE);
  m_held.hold();
  auto next = std::async(std::launch::async, [&] { return m_agent->siteName(); });
  EXPECT_TRUE(m_held.awaitQuestion());
  auto last = std::async(std::launch::async, [&] { return m_agent->lastSiteName(); });
  EXPECT_TRUE(isThere(last));
  EXPECT_EQ(last.get(), "Paris");
  EXPECT_EQ(next.get(), "London");
  EXPECT_EQ(m_agent->lastSiteName(), "London");
}

TEST_F(AgentThatWaits, AnswersFromMemoryWhileItAsksForSomethingElse) {
  ADCacheBinding binding({"corp.test", true, "", "", ""}, [] { return "FILE:/agent"; });
  const auto ask = [&](const char* filter) {
    return binding.search(filter, "", nullptr, 2, 0, CACHE_READ | CACHE_STORE | CACHE_MISSES, false, false)->size();
  };
  ASSERT_EQ(ask("(cn=h1)"), 1U);
  m_held.hold();
  auto other = std::async(std::launch::async, [&] { return ask("(cn=h2)"); });
  EXPECT_TRUE(m_held.awaitQuestion());
  auto known = std::async(std::launch::async, [&] { return ask("(cn=h1)"); });
  EXPECT_TRUE(isThere(known));
  EXPECT_EQ(known.get(), 1U);
  EXPECT_EQ(other.get(), 0U);
}

}  // namespace
