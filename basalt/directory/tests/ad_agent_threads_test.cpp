// One agent, many threads, and a directory that goes and comes.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "basalt/ad_agent.h"
#include "basalt/directory/computer_object.h"
#include "basalt/process/clock.h"
#include "base/include/exceptions.h"
#include "testsupport/agent_in_force.h"
#include "testsupport/memory_directory.h"

namespace {

using testsupport::MemoryDirectory;
using Kind = MemoryDirectory::Failure::Kind;

constexpr int THREADS = 8;
constexpr int ROUNDS = 60;
constexpr int USUAL = CACHE_READ | CACHE_STORE | CACHE_MISSES;

// A clock whose every look moves it on, for any thread: pauses and lives end in the middle of the work.
class RunningClock : public lumo::Clock {
 public:
  RunningClock() { setInstance(this); }
  ~RunningClock() override { setInstance(nullptr); }
  RunningClock(const RunningClock&) = delete;
  RunningClock& operator=(const RunningClock&) = delete;
  std::chrono::system_clock::time_point now() override { return std::chrono::system_clock::now(); }
  std::chrono::steady_clock::time_point steadyNow() override {
    return std::chrono::steady_clock::time_point(std::chrono::milliseconds(m_ticks.fetch_add(700)));
  }
  void sleepFor(std::chrono::milliseconds) override {}
  void waitUntil(std::condition_variable&, std::unique_lock<std::mutex>&, std::time_t) override {}

 private:
  std::atomic<long> m_ticks{1'000'000};
};

std::string host(int number) { return "CN=h" + std::to_string(number) + ",DC=corp,DC=test"; }

TEST(AgentsThreads, ShareItWhileTheDirectoryGoesAndComes) {
  RunningClock clock;
  MemoryDirectory directory("corp.test");
  for (int i = 0; i < 20; ++i) directory.add(host(i), {{AD_CN, {"h"}}, {AD_DNS_NAME, {"h.corp.test"}}});
  directory.setSite("Paris");
  testsupport::AgentInForce agent(directory);
  const char* const* const attributes = lumo::ComputerObjectHelper::getAttributes();

  std::atomic<int> running{THREADS}, answered{0}, failed{0}, wrong{0};
  const auto work = [&](int thread) {
    for (int i = 0; i < ROUNDS; ++i) {
      ADAgent* const own = ADAgent::GetADAgent(false, true);
      try {
        switch ((thread + i) % 5) {
          case 0: {
            const ADObjectPtr found = own->find(host(i % 25), attributes, USUAL);
            if (lumo::ADObject::isValid(found) != (i % 25 < 20)) ++wrong;
            // Callers write into what they get.
            if (found) found->set("written", {std::to_string(thread)});
            if (found && found->getString("written", "") != std::to_string(thread)) ++wrong;
            break;
          }
          case 1:
            own->prefetch({host(i % 25), host((i + 1) % 25)}, attributes);
            break;
          case 2:
            if (own->searchGCorDC("(cn=h)", "", attributes, attributes, USUAL)->size() != 20) ++wrong;
            break;
          case 3:
            if (own->gcBinding()->search("(cn=h)", "", attributes, 2, 0, 15, false, false)->size() != 20) ++wrong;
            break;
          default:
            own->isConnected();
            if (own->siteName() != "Paris") ++wrong;
            krb5_free_context(own->kerberosContext().clone());
        }
        ++answered;
      } catch (const LDAPException& failure) {
        if (!isServerUnavailable(failure)) ++wrong;
        ++failed;
      }
    }
    --running;
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < THREADS; ++i) threads.emplace_back(work, i);
  for (int i = 0; running > 0; ++i) {
    if (i % 3 == 0) directory.failSearch({Kind::Gone, -1, ""}, 2);
    if (i % 3 == 1) directory.failOpen({Kind::Unreachable, -1, ""}, 2);
    if (i % 3 == 2) directory.clearFailures();
    std::this_thread::yield();
  }
  for (std::thread& thread : threads) thread.join();
  directory.clearFailures();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(answered + failed, THREADS * ROUNDS);
  EXPECT_GT(answered, 0);
  while (!agent->isConnected()) {
  }
  EXPECT_TRUE(agent->find(host(1), attributes, 0));
}

}  // namespace
