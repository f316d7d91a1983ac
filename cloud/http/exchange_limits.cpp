#include "cloud/http/exchange_limits.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <string>

#include "basalt/process/clock.h"
#include "cloud/include/exchange_stop.h"

namespace {

// What libcurl takes at the most.
constexpr std::chrono::milliseconds LONGEST{std::numeric_limits<unsigned>::max()};

std::atomic<bool> isStopped{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

}  // namespace

void lumo::stopExchanges() noexcept { isStopped = true; }

void lumo::resumeExchanges() noexcept { isStopped = false; }

void ExchangeLimits::setTime(std::chrono::milliseconds time) { length = std::min(time, LONGEST); }

void ExchangeLimits::begin() {
  hasDeadline = length.count() > 0;
  if (hasDeadline) deadline = lumo::Clock::getInstance().steadyNow() + length;
  reason = CURLE_OK;
  headerBytes = 0;
}

bool ExchangeLimits::isOver() {
  if (reason != CURLE_OK) return true;
  if (isStopped) {
    reason = CURLE_ABORTED_BY_CALLBACK;
  } else if (hasDeadline && lumo::Clock::getInstance().steadyNow() >= deadline) {
    reason = CURLE_OPERATION_TIMEDOUT;
  }
  return reason != CURLE_OK;
}

CURLcode ExchangeLimits::codeFor(CURLcode code) const { return code == CURLE_OK || reason == CURLE_OK ? code : reason; }

bool ExchangeLimits::takeHeader(size_t bytes) {
  headerBytes += bytes;
  return headerBytes <= MAX_HEADER_BYTES;
}

bool ExchangeLimits::takeTrace(size_t bytes) {
  if (isTraceFull()) return false;
  traceBytes += bytes + sizeof(std::string);
  return !isTraceFull();
}
