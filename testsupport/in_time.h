// For tests of time limits, on a machine that may have much else to do.
#pragma once

#include <chrono>
#include <functional>

namespace testsupport {

// Runs the work until one run takes less than the limit, ten times at most. Other processes delay some of the runs, a
// defect delays all.
// Returns whether one did.
inline bool onceWithin(std::chrono::milliseconds limit, const std::function<void()>& work) {
  for (int run = 0; run < 10; ++run) {
    const auto start = std::chrono::steady_clock::now();
    work();
    if (std::chrono::steady_clock::now() - start < limit) return true;
  }
  return false;
}

}  // namespace testsupport
