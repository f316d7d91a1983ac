#include "basalt/run_queue.h"

#include <boost/make_shared.hpp>
#include <map>
#include <mutex>
#include <vector>

#include "basalt/queue/run_queue_core.h"
#include "base/include/exceptions.h"

namespace lumo {
namespace {

using Core = boost::shared_ptr<RunQueueCore>;

struct Registry {
  std::mutex mutex;
  std::map<std::string, Core> queues;
};

// Lives to the very end: threads of queues that nobody shut down go on until then.
Registry& registry() {
  static auto* shared = new Registry;
  return *shared;
}

Core coreOf(const std::string& name, bool create, int threads) {
  Core former;  // let go of after the lock
  const std::lock_guard<std::mutex> lock(registry().mutex);
  Core& core = registry().queues[name];
  if (core && !core->refuses()) return core;
  if (!create) return nullptr;
  if (core && !core->ended()) LUMO_THROW(EndOfFileException, -1, "The queue '%s' is shutting down.", name.c_str());
  former = core;
  core = RunQueueCore::start(name, threads);
  return core;
}

template <typename View>
boost::shared_ptr<View> viewOf(const std::string& name, bool create, int threads) {
  Core core = coreOf(name, create, threads);
  return core ? boost::make_shared<View>(std::move(core)) : nullptr;
}

}  // namespace

boost::shared_ptr<RunQueue> RunQueue::getRunQueue(const std::string& name, bool create, int threads) {
  return viewOf<RunQueue>(name, create, threads);
}

void RunQueue::enqueue(const boost::shared_ptr<QueueAble>& item) { m_core->enqueue(item); }

void RunQueue::shutdown() {
  m_core->refuse();
  m_core->awaitEnd();
}

void RunQueue::shutdownAll() {
  std::vector<Core> cores;
  {
    const std::lock_guard<std::mutex> lock(registry().mutex);
    for (const auto& [name, core] : registry().queues) {
      if (core) cores.push_back(core);
    }
  }
  for (const Core& core : cores) core->refuse();
  for (const Core& core : cores) core->awaitEnd();
}

void RunQueue::throwIfEnding() { RunQueueCore::throwIfEnding(); }

RunningQueues::RunningQueues(std::initializer_list<const char*> names) try {
  for (const char* name : names) RunQueue::getRunQueue(name, true, 1);
} catch (...) {
  RunQueue::shutdownAll();
}

boost::shared_ptr<TimeQueue> TimeQueue::getTimeQueue(const std::string& name, bool create, int threads) {
  return viewOf<TimeQueue>(name, create, threads);
}

void TimeQueue::enqueue(const boost::shared_ptr<QueueAble>& item) { m_core->enqueue(item); }

}  // namespace lumo
