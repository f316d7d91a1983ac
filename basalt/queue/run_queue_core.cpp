#include "basalt/queue/run_queue_core.h"

#include <pthread.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <chrono>
#include <exception>
#include <limits>

#include "basalt/process/clock.h"
#include "base/include/exceptions.h"
#include "base/include/logger.h"

namespace lumo {
namespace {

constexpr std::time_t never = std::numeric_limits<std::time_t>::max();
constexpr std::time_t atOnce = std::numeric_limits<std::time_t>::min();
constexpr int mostMissedRuns = 100000;

// The queue whose thread this is.
thread_local RunQueueCore* ofThisThread = nullptr;

boost::shared_ptr<Logger> logger() { return getLogger("base.queue", false); }

std::time_t seconds() { return std::chrono::system_clock::to_time_t(Clock::getInstance().now()); }

void nameThread(const std::string& name) {
  constexpr std::size_t longestName = 15;
  pthread_setname_np(pthread_self(), name.substr(0, longestName).c_str());
}

// Gives the thread an item's name, where it has one, and takes it away again.
class ThreadName {
 public:
  ThreadName(const std::string& name, const std::string& usual) : m_given(!name.empty()), m_usual(usual) {
    if (m_given) nameThread(name);
  }
  ~ThreadName() {
    if (m_given) nameThread(m_usual);
  }
  ThreadName(const ThreadName&) = delete;
  ThreadName& operator=(const ThreadName&) = delete;

 private:
  bool m_given;
  const std::string& m_usual;
};

template <typename Step>
void attempt(const std::string& id, Step step) {
  try {
    step();
  } catch (const std::exception& failure) {
    LUMO_LOG(logger(), lumo::level::Error, "Queue item '%s' failed: %s", id.c_str(), failure.what());
  } catch (...) {
    LUMO_LOG(logger(), lumo::level::Error, "Queue item '%s' failed: an exception of an unknown kind", id.c_str());
  }
}

std::time_t later(std::time_t due, long delay) {
  if (delay <= 0) return due;
  return due > never - delay ? never : due + delay;
}

// Moves a periodic item to its next run and gives the earliest time for it.
std::time_t nextRun(QueueAble& item) {
  const std::time_t now = seconds();
  for (int missed = 0; missed < mostMissedRuns; ++missed) {
    const long before = item.getTimeout();
    item.updateTimeout();
    const long due = item.getTimeout();
    if (due > now) return due;
    if (due <= before) break;
  }
  return now + 1;
}

}  // namespace

boost::shared_ptr<RunQueueCore> RunQueueCore::start(const std::string& name, int threads) {
  auto core = boost::make_shared<RunQueueCore>(name);
  const auto count = static_cast<std::size_t>(std::max(threads, 1));
  try {
    const std::lock_guard<std::mutex> lock(core->m_mutex);
    core->m_threads.reserve(count);
    while (core->m_threads.size() < count) {
      core->m_threads.emplace_back([core] { core->work(); });
      ++core->m_working;
    }
  } catch (const std::exception& failure) {
    core->refuse();
    core->awaitEnd();
    LUMO_THROW(SystemException, -1, "Cannot start the threads of the queue '%s': %s", name.c_str(), failure.what());
  }
  return core;
}

RunQueueCore::~RunQueueCore() {
  // Only threads that have left their work: each of them shares in the queue. One of them may be the last to do so.
  for (std::thread& thread : m_threads) {
    if (thread.get_id() == std::this_thread::get_id()) {
      thread.detach();
    } else {
      thread.join();
    }
  }
}

void RunQueueCore::enqueue(const boost::shared_ptr<QueueAble>& item) {
  if (!item) LUMO_THROW(Base_Exception, -1, "There is no item to queue.");
  if (!insert(item, atOnce)) throwRefusal();
}

void RunQueueCore::throwRefusal() const {
  LUMO_THROW(EndOfFileException, -1, "The queue '%s' is shutting down.", m_name.c_str());
}

void RunQueueCore::throwIfEnding() {
  if (ofThisThread != nullptr && ofThisThread->refuses()) ofThisThread->throwRefusal();
}

// Puts the item in its place; false when the queue refuses.
bool RunQueueCore::insert(const boost::shared_ptr<QueueAble>& item, std::time_t earliest) {
  const long due = item->getTimeout();
  const std::time_t start = std::max(earliest, later(due, item->getRandomDelay()));
  Waiting waiting{item, item->getID(), item->dedupMe()};
  Waiting replaced;  // let go of after the lock
  std::unique_lock<std::mutex> lock(m_mutex);
  if (m_refusing) return false;
  const auto former = waitingDouble(waiting);
  if (former != m_waiting.end() && former->second.item->keepQueuedItem(due)) return true;
  m_waiting.emplace(Place{start, m_queueings++}, std::move(waiting));
  if (former != m_waiting.end()) {
    replaced = std::move(former->second);
    m_waiting.erase(former);
  }
  lock.unlock();
  // Who wakes up finds the lock free, and who queued something has not to hand it over.
  m_changed.notify_one();
  return true;
}

RunQueueCore::WaitingItems::iterator RunQueueCore::waitingDouble(const Waiting& other) {
  if (!other.dedup) return m_waiting.end();
  return std::find_if(m_waiting.begin(), m_waiting.end(),
                      [&](const auto& entry) { return entry.second.dedup && entry.second.id == other.id; });
}

void RunQueueCore::refuse() {
  WaitingItems dropped;  // let go of after the lock
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_refusing = true;
  dropped.swap(m_waiting);
  m_changed.notify_all();
}

void RunQueueCore::awaitEnd() {
  if (ofThisThread != nullptr) return;
  std::vector<std::thread> threads;
  std::unique_lock<std::mutex> lock(m_mutex);
  threads.swap(m_threads);
  lock.unlock();
  for (std::thread& thread : threads) thread.join();
  lock.lock();
  m_ended.wait(lock, [this] { return m_working == 0; });
}

bool RunQueueCore::refuses() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_refusing;
}

bool RunQueueCore::ended() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_refusing && m_working == 0;
}

void RunQueueCore::work() {
  ofThisThread = this;
  nameThread(m_name);
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_refusing) {
    const std::time_t due = m_waiting.empty() ? never : m_waiting.begin()->first.first;
    if (due > seconds()) {
      Clock::getInstance().waitUntil(m_changed, lock, due);
      continue;
    }
    Waiting waiting = std::move(m_waiting.begin()->second);
    m_waiting.erase(m_waiting.begin());
    // This thread watches the clock no longer: another one has to.
    if (!m_waiting.empty()) m_changed.notify_one();
    lock.unlock();
    execute(waiting);
    waiting = Waiting();
    lock.lock();
  }
  if (--m_working == 0) m_ended.notify_all();
}

void RunQueueCore::execute(const Waiting& waiting) {
  QueueAble& item = *waiting.item;
  attempt(waiting.id, [&] {
    const ThreadName name(item.getLoggingThreadName(), m_name);
    item.run();
  });
  attempt(waiting.id, [&] {
    if (item.periodic()) insert(waiting.item, nextRun(item));
  });
}

}  // namespace lumo
