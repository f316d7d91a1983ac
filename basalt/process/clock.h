// The seam of time: what the system reads of the clock and how it sleeps.
#pragma once

#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>

namespace lumo {

// Any thread.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual std::chrono::system_clock::time_point now() = 0;
  virtual std::chrono::steady_clock::time_point steadyNow() = 0;
  virtual void sleepFor(std::chrono::milliseconds duration) = 0;
  // Waits on `woken`, whose lock is held, until it is notified or now() reaches the second `due`, however the clock is
  // set in the meantime. May return early: the caller looks at the clock again.
  virtual void waitUntil(std::condition_variable& woken, std::unique_lock<std::mutex>& lock, std::time_t due) = 0;

  // The clock in force: the system's own, or the one that a test put in its place.
  static Clock& getInstance();
  // Puts another clock in place; null puts the system's own back. The caller keeps ownership. Only while one thread
  // runs.
  static void setInstance(Clock* clock);
};

}  // namespace lumo
