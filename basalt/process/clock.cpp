#include "basalt/process/clock.h"

#include <thread>

namespace lumo {
namespace {

constexpr std::chrono::minutes longestWait{1};

class SystemClock : public Clock {
 public:
  std::chrono::system_clock::time_point now() override { return std::chrono::system_clock::now(); }
  std::chrono::steady_clock::time_point steadyNow() override { return std::chrono::steady_clock::now(); }
  void sleepFor(std::chrono::milliseconds duration) override { std::this_thread::sleep_for(duration); }
  // A wait for a moment of the wall clock, not for a duration: the kernel moves its end when the clock is set, so that
  // no thread has to wake each second to look. It ends each minute all the same, which keeps a due time of the far
  // future within the clock's range, and mends the notifications that condition variables of glibc before 2.41 lose.
  void waitUntil(std::condition_variable& woken, std::unique_lock<std::mutex>& lock, std::time_t due) override {
    const auto latest = now() + longestWait;
    const bool near = due < std::chrono::system_clock::to_time_t(latest);
    woken.wait_until(lock, near ? std::chrono::system_clock::from_time_t(due) : latest);
  }
};

Clock* replacement = nullptr;

}  // namespace

Clock& Clock::getInstance() {
  // Never destroyed: a queue's thread may still ask while the process ends.
  static SystemClock& own = *new SystemClock;
  return replacement != nullptr ? *replacement : own;
}

void Clock::setInstance(Clock* clock) { replacement = clock; }

}  // namespace lumo
