// A clock that runs ahead of the real one.
#pragma once

#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <thread>

#include "basalt/process/clock.h"

namespace testsupport {

// In force from construction to destruction: pauses and intervals of seconds pass in a fiftieth of their time. Any
// thread.
class FastClock : public lumo::Clock {
 public:
  static constexpr int FACTOR = 50;

  FastClock() { setInstance(this); }
  ~FastClock() override { setInstance(nullptr); }
  FastClock(const FastClock&) = delete;
  FastClock& operator=(const FastClock&) = delete;

  std::chrono::system_clock::time_point now() override { return ahead(m_now, std::chrono::system_clock::now()); }
  std::chrono::steady_clock::time_point steadyNow() override {
    return ahead(m_steady, std::chrono::steady_clock::now());
  }
  void sleepFor(std::chrono::milliseconds duration) override { std::this_thread::sleep_for(duration / FACTOR); }
  void waitUntil(std::condition_variable& woken, std::unique_lock<std::mutex>& lock, std::time_t due) override {
    if (std::chrono::system_clock::to_time_t(now()) >= due) return;
    // By the wall clock: ThreadSanitizer knows of no other wait.
    woken.wait_until(lock, std::chrono::system_clock::now() + std::chrono::milliseconds(5));
  }

 private:
  template <class TimePoint>
  static TimePoint ahead(TimePoint start, TimePoint real) {
    return start + (real - start) * FACTOR;
  }

  const std::chrono::system_clock::time_point m_now = std::chrono::system_clock::now();
  const std::chrono::steady_clock::time_point m_steady = std::chrono::steady_clock::now();
};

}  // namespace testsupport
