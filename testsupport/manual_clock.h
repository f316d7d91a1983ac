// A clock that a test sets.
#pragma once

#include <chrono>

#include "basalt/clock.h"

namespace testsupport {

// In force from construction to destruction. Starts at the real time and then stands still; sleeping moves it on.
class ManualClock : public lumo::Clock {
 public:
  ManualClock() { setInstance(this); }
  ~ManualClock() override { setInstance(nullptr); }
  ManualClock(const ManualClock&) = delete;
  ManualClock& operator=(const ManualClock&) = delete;

  std::chrono::system_clock::time_point now() override { return m_now; }
  std::chrono::steady_clock::time_point steadyNow() override { return m_steady; }
  void sleepFor(std::chrono::milliseconds duration) override { advance(duration); }

  // Both clocks go on.
  void advance(std::chrono::milliseconds duration) {
    m_now += duration;
    m_steady += duration;
  }
  // Somebody sets the wall clock.
  void set(std::chrono::system_clock::time_point now) { m_now = now; }

 private:
  std::chrono::system_clock::time_point m_now = std::chrono::system_clock::now();
  std::chrono::steady_clock::time_point m_steady = std::chrono::steady_clock::now();
};

}  // namespace testsupport
