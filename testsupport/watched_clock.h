// A clock that lets a test take part in its reading.
#pragma once

#include <chrono>
#include <condition_variable>
#include <ctime>
#include <functional>
#include <mutex>
#include <thread>

#include "basalt/process/clock.h"

namespace testsupport {

// The system's clock, and what its maker wants done whenever the maker's own thread reads it.
class WatchedClock : public lumo::Clock {
 public:
  WatchedClock() { setInstance(this); }
  ~WatchedClock() override { setInstance(nullptr); }
  WatchedClock(const WatchedClock&) = delete;
  WatchedClock& operator=(const WatchedClock&) = delete;

  std::chrono::system_clock::time_point now() override {
    if (std::this_thread::get_id() == m_maker && onRead) onRead();
    return std::chrono::system_clock::now();
  }
  std::chrono::steady_clock::time_point steadyNow() override { return std::chrono::steady_clock::now(); }
  void sleepFor(std::chrono::milliseconds duration) override { std::this_thread::sleep_for(duration); }
  void waitUntil(std::condition_variable& woken, std::unique_lock<std::mutex>& lock, std::time_t) override {
    woken.wait(lock);
  }

  std::function<void()> onRead;

 private:
  const std::thread::id m_maker = std::this_thread::get_id();
};

}  // namespace testsupport
