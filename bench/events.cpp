// Times privilege events: how many a second go from handleLogPrivEvent to the platform simulator, beside plain libcurl
// that posts the same bodies, and how long handleLogPrivEvent keeps its caller while the platform is down.
//
// usage: events [ROUNDS [CALLS]]
// First line: events per second of ours; those of plain libcurl and what ours are of them; the same once more for plain
// libcurl that hands the bodies out by a callback as ours does, which makes a body a packet of its own. Rates are
// medians of so many rounds (100) of 200 events, the quotients medians round by round. Who begins changes with each
// round, each has one kept connection, and the simulator has to have counted every event.
// Then two lines for the caller's time in microseconds, half, 99 in 100 and the longest of so many calls (10,000): in a
// burst, and one every half millisecond; none with 0. Nobody listens on the platform's port, and the queue's thread
// fails once for each event. Tabs separate.
//
// A round of ours is everything from the first handleLogPrivEvent to the last reply, on one processor: 200 times a copy
// of the event and an item for the queue, then the sending, then the 199 items that find nothing to do. The queue's
// thread is held while the events are stored. What is stored while it sends is removed unsent, so that a rate without
// the hold would count events that never went out.
#include <boost/make_shared.hpp>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>

#include "basalt/process/clock.h"
#include "basalt/run_queue.h"
#include "base/include/parameter_names.h"
#include "bench/nobody.h"
#include "bench/plain_curl.h"
#include "bench/platform.h"
#include "bench/rounds.h"
#include "cloud/events/tests/opx_processor_access.h"
#include "cloud/rest/json_body.h"

namespace {

using Event = lumo::OPXProcessor::Event;
using lumo::OPXProcessor;
using lumo::RunQueue;

constexpr int EVENTS = 200;  // of a round
constexpr std::chrono::microseconds PAUSE{500};

const Event EVENT = {{"User", "alice@corp.example.test"},
                     {"Host", "web1.corp.example.test"},
                     {"Command", "/usr/bin/systemctl restart nginx"},
                     {"RunAs", "root"},
                     {"Terminal", "/dev/pts/3"},
                     {"Time", "2026-03-01T09:30:00.123+0100"},
                     {"Reason", "ticket \"4711\""}};

// Does something on the queue's thread, behind what is due by now.
class Step : public lumo::QueueAble {
 public:
  explicit Step(Work work) : m_work(std::move(work)) {}
  void run() override { m_work(); }
  long getTimeout() const override { return m_due; }

 private:
  const Work m_work;
  const long m_due = static_cast<long>(std::chrono::system_clock::to_time_t(lumo::Clock::getInstance().now()));
};

boost::shared_ptr<RunQueue> newQueue() { return RunQueue::getRunQueue(lumo::OPX_RUN_QUEUE, true, 1); }

void send(RunQueue& queue) {
  std::promise<void> stored;
  std::promise<void> done;
  queue.enqueue(boost::make_shared<Step>([&stored] { stored.get_future().wait(); }));
  for (int i = 0; i < EVENTS; ++i) OPXProcessor::handleLogPrivEvent(EVENT);
  stored.set_value();
  queue.enqueue(boost::make_shared<Step>([&done] { done.set_value(); }));
  done.get_future().wait();
}

void sendPlain(PlainCurl& curl, const std::string& body) {
  for (int i = 0; i < EVENTS; ++i) {
    require(curl.post("qrsintegration/LogPrivEvent", body).find(R"("success":true)") != std::string::npos,
            "plain event");
  }
}

void compareRates(const Platform& platform, int rounds) {
  const auto queue = newQueue();
  const std::string body = jsonOf(EVENT);
  PlainCurl plain(platform, PlainCurl::AsFields);
  PlainCurl byCallback(platform, PlainCurl::ByCallback);
  for (PlainCurl* const curl : {&plain, &byCallback}) curl->signIn(platform.code());
  const auto times =
      timesOf({[&] { send(*queue); }, [&] { sendPlain(plain, body); }, [&] { sendPlain(byCallback, body); }}, rounds);
  const auto [events, connections] = platform.eventsAndConnections();
  require(events == 3L * EVENTS * (rounds + rounds / 10), "events are missing at the simulator");
  require(connections == 3, "a connection was not kept");
  const auto rate = [](const std::vector<double>& of) { return EVENTS * 1e6 / median(of); };
  std::printf("%-32s\t%.0f", "events per second", rate(times[0]));
  for (const auto& theirs : {times[1], times[2]}) {
    std::printf("\t%.0f\t%.3f", rate(theirs), medianRatio(theirs, times[0]));
  }
  std::printf("\n");
  RunQueue::shutdownAll();
}

// Of calls so far apart, a queue failing beside them.
void timeCalls(const char* name, size_t calls, std::chrono::microseconds pause) {
  const auto queue = newQueue();
  std::vector<double> times;
  times.reserve(calls);
  while (times.size() < calls) {
    times.push_back(microseconds([] { OPXProcessor::handleLogPrivEvent(EVENT); }));
    if (pause.count() != 0) std::this_thread::sleep_for(pause);
  }
  RunQueue::shutdownAll();
  require(lumo::OPXProcessorAccess::takeWaiting() == calls, "somebody took events away");
  std::printf("%-32s\t%.1f\t%.1f\t%.1f\n", name, median(times), quantile(times, 0.99), quantile(times, 1));
  std::fflush(stdout);
}

void measure(int rounds, size_t calls) {
  Platform platform;
  testsupport::EmptyDirectory directory;
  NobodysTickets tickets;
  const SettingsScope settings{{lumo::PN::CLOUD_DIRECT_CONNECTION, "true"},
                               {lumo::PN::CLOUD_IWA_URL_OVERRIDE, platform.connectorUrl()}};
  lumo::OPXProcessorAccess access;
  access.certStore = platform.bundle();
  access.processor.initProc(platform.url());
  require(!access.machineCookie.empty(), "no sign-in");
  keepTo(0);
  compareRates(platform, rounds);
  if (calls == 0) return;
  platform.end();
  keepToNone();
  timeCalls("caller's time, burst", calls, {});
  timeCalls("caller's time, now and then", calls, PAUSE);
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 100;
  const int calls = argc > 2 ? std::atoi(argv[2]) : 10000;
  if (rounds < 1 || calls < 0) {
    std::fprintf(stderr, "usage: events [ROUNDS [CALLS]]\n");
    return 2;
  }
  try {
    measure(rounds, static_cast<size_t>(calls));
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
  return 0;
}
