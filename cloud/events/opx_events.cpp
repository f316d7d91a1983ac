// The privilege events: stored on the agent's threads, sent on the queue's.
#include <boost/make_shared.hpp>
#include <chrono>

#include "basalt/process/clock.h"
#include "base/include/wipe.h"
#include "cloud/events/opx_handler.h"
#include "cloud/http/http_status.h"
#include "cloud/include/curl_object.h"
#include "cloud/include/opx_processor.h"
#include "cloud/rest/json_body.h"
#include "cloud/rest/machine_sign_in.h"
#include "cloud/route/opx_lock.h"

namespace lumo {

namespace {

// Whole lists change hands under opxLock, and nothing is copied or destroyed there: agents wait for it.
using Events = std::list<OPXProcessor::Event>;

// Under opxLock; without those that are being sent. Never destroyed: a queue that nobody shut down outlives statics.
Events& privEvents() {
  static auto* const events = new Events;
  return *events;
}

// The events that wait when it is made, no longer among the waiting. They are again, in front of all, when it goes.
class EventsInHand {
 public:
  EventsInHand() {
    const Lock lock(opxLock);
    m_events.swap(privEvents());
  }
  ~EventsInHand() {
    const Lock lock(opxLock);
    privEvents().splice(privEvents().begin(), m_events);
  }
  EventsInHand(const EventsInHand&) = delete;
  EventsInHand& operator=(const EventsInHand&) = delete;

  const Events& all() const { return m_events; }

 private:
  Events m_events;
};

long secondsNow() { return static_cast<long>(std::chrono::system_clock::to_time_t(Clock::getInstance().now())); }

}  // namespace

void OPXHandler::run() {
  try {
    OPXProcessor::getInstance()->postLogPrivEvent();
  } catch (...) {
    // Switched off, or not made yet: the events wait for a later item.
  }
}

void OPXProcessor::handleLogPrivEvent(const Event& event) {
  try {
    const auto log = getLogger(OPX_LOGGER, false);
    Events stored(1, event);
    {
      const Lock lock(opxLock);
      privEvents().splice(privEvents().end(), stored);
    }
    const auto queue = RunQueue::getRunQueue(OPX_RUN_QUEUE, false, 0);
    if (!queue) return;
    queue->enqueue(boost::make_shared<OPXHandler>(secondsNow()));
    LUMO_LOG(log, lumo::level::Debug, "Send out LogPrivEvent message to OPX handler");
  } catch (const EndOfFileException&) {
    // The queue is shutting down.
  } catch (const std::exception& failure) {
    LUMO_LOG(getLogger(OPX_LOGGER, false), lumo::level::Error,
             "Failed to send out LogPrivEvent message to OPX handler: %s", failure.what());
  }
}

std::size_t OPXProcessor::waitingEvents() {
  const Lock lock(opxLock);
  return privEvents().size();
}

void OPXProcessor::dropEvents() {
  Events dropped;
  const Lock lock(opxLock);
  dropped.swap(privEvents());
}

void OPXProcessor::postLogPrivEvent() {
  LUMO_LOG(logger, lumo::level::Debug, "postLogPrivEvent() runs...");
  if (waitingEvents() == 0) return;
  if (machineCookie.empty()) {
    LUMO_LOG(logger, lumo::level::Debug, "Machine cookie not ready, will fetch");
    // A copy: initProc stores what it is given there.
    initProc(std::string(platformUrl));
  }
  guarded([this] {
    cloudLogPrivEvent();
    // What came meanwhile goes with the rest.
    dropEvents();
  });
}

void OPXProcessor::cloudLogPrivEvent() {
  const std::string url = platformUrl + "qrsintegration/LogPrivEvent";
  LUMO_LOG(logger, lumo::level::Debug, "process a privilege event");
  const EventsInHand events;
  if (events.all().empty()) return;
  useSession(heldCurl(), machineCookie);
  for (const Event& event : events.all()) {
    // An agent that ends does not wait for a slow platform and all of them.
    RunQueue::throwIfEnding();
    const int result = post(url, jsonOf(event));
    LUMO_LOG(logger, lumo::level::Debug, "LogPrivEvent: result = %d, httpCode = %ld", result, httpCode);
    if (result != 0) continue;
    wipe(machineCookie);
    if (httpCode != HTTP_UNAUTHORIZED) {
      LUMO_LOG(logger, lumo::level::Debug, "LogPrivEvent: unknown failure, give up such sending.");
      return;
    }
    LUMO_LOG(logger, lumo::level::Debug, "LogPrivEvent: machine cookie expired, will refetch");
    cloudSSO();
  }
}

}  // namespace lumo
