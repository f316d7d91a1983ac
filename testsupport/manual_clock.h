// A clock that a test sets.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "basalt/process/clock.h"

namespace testsupport {

// In force from construction to destruction. Starts at the real time and then stands still; sleeping moves it on. Who
// waits for a time sees each change at once. Any thread; threads that wait live on while the clock is changed.
class ManualClock : public lumo::Clock {
 public:
  ManualClock() { setInstance(this); }
  ~ManualClock() override { setInstance(nullptr); }
  ManualClock(const ManualClock&) = delete;
  ManualClock& operator=(const ManualClock&) = delete;

  std::chrono::system_clock::time_point now() override {
    const std::lock_guard<std::mutex> own(m_mutex);
    return m_now;
  }
  std::chrono::steady_clock::time_point steadyNow() override {
    const std::lock_guard<std::mutex> own(m_mutex);
    return m_steady;
  }
  void sleepFor(std::chrono::milliseconds duration) override { advance(duration); }
  void waitUntil(std::condition_variable& woken, std::unique_lock<std::mutex>& lock, std::time_t due) override {
    const auto self = std::this_thread::get_id();
    {
      const std::lock_guard<std::mutex> own(m_mutex);
      if (std::chrono::system_clock::to_time_t(m_now) >= due) return;
      m_waiters.push_back({self, &woken, lock.mutex(), due});
      m_waiting.notify_all();
    }
    woken.wait(lock);
    const std::lock_guard<std::mutex> own(m_mutex);
    const auto isSelf = [self](const Waiter& waiter) { return waiter.thread == self; };
    m_waiters.erase(std::remove_if(m_waiters.begin(), m_waiters.end(), isSelf), m_waiters.end());
  }

  // The wall clock in seconds.
  std::time_t seconds() { return std::chrono::system_clock::to_time_t(now()); }
  // Both clocks go on.
  void advance(std::chrono::milliseconds duration) {
    change([this, duration] {
      m_now += duration;
      m_steady += duration;
    });
  }
  // Somebody sets the wall clock.
  void set(std::chrono::system_clock::time_point now) {
    change([this, now] { m_now = now; });
  }

  // Returns once so many threads, who know of every change so far, wait for that second; false when they do not come.
  bool awaitWaiting(std::time_t due, std::ptrdiff_t threads = 1) {
    std::unique_lock<std::mutex> own(m_mutex);
    return m_waiting.wait_until(own, std::chrono::system_clock::now() + std::chrono::seconds(20), [&] {
      const auto isDue = [due](const Waiter& waiter) { return waiter.due == due; };
      return std::count_if(m_waiters.begin(), m_waiters.end(), isDue) == threads;
    });
  }

 private:
  struct Waiter {
    std::thread::id thread;
    std::condition_variable* woken;
    std::mutex* mutex;
    std::time_t due;
  };

  template <typename Change>
  void change(Change apply) {
    std::vector<Waiter> waiters;
    {
      const std::lock_guard<std::mutex> own(m_mutex);
      apply();
      waiters.swap(m_waiters);
    }
    for (const Waiter& waiter : waiters) {
      // Once its lock could be had, the thread is in its wait and hears the notification.
      waiter.mutex->lock();
      waiter.mutex->unlock();
      waiter.woken->notify_all();
    }
  }

  std::mutex m_mutex;
  std::condition_variable m_waiting;
  std::vector<Waiter> m_waiters;
  std::chrono::system_clock::time_point m_now = std::chrono::system_clock::now();
  std::chrono::steady_clock::time_point m_steady = std::chrono::steady_clock::now();
};

}  // namespace testsupport
