#include "basalt/clock.h"

#include <thread>

namespace lumo {
namespace {

class SystemClock : public Clock {
 public:
  std::chrono::system_clock::time_point now() override { return std::chrono::system_clock::now(); }
  std::chrono::steady_clock::time_point steadyNow() override { return std::chrono::steady_clock::now(); }
  void sleepFor(std::chrono::milliseconds duration) override { std::this_thread::sleep_for(duration); }
};

Clock* replacement = nullptr;

}  // namespace

Clock& Clock::getInstance() {
  static SystemClock own;
  return replacement != nullptr ? *replacement : own;
}

void Clock::setInstance(Clock* clock) { replacement = clock; }

}  // namespace lumo
