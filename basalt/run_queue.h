// Queues of work for later: named queues whose threads run items when their time has come.
#pragma once

#include <boost/shared_ptr.hpp>
#include <initializer_list>
#include <string>
#include <utility>

// Something to be done.
class Runnable {
 public:
  Runnable() = default;
  Runnable(const Runnable&) = delete;
  Runnable& operator=(const Runnable&) = delete;

  virtual void run() = 0;
  virtual ~Runnable() = default;
};

namespace lumo {

// The queue of the agent's background work, and the queue that reports privilege events (one thread).
constexpr const char* MAIN_RUN_QUEUE = "main";
constexpr const char* OPX_RUN_QUEUE = "opx";

// An item of a queue. Times are seconds of the wall clock, as time() gives them.
//
// The queue holds none of its locks while it calls an item, with one exception: keepQueuedItem runs under the queue's
// lock, so neither it nor what it calls (getTimeout, as a rule) may take a lock or call a queue. One thread at a time
// calls an item that does not queue itself; it is destroyed on the thread that lets go of it last.
class QueueAble : public Runnable {
 public:
  // Does the work, on a thread of the queue. May queue further items, its own successor among them, and the item
  // itself. Whatever it throws ends in the log: level 4 of "base.queue", "Queue item '%s' failed: %s" with the ID.
  void run() override = 0;
  ~QueueAble() override = default;

  // Whether of the items that say so only one of each ID may wait in the queue; see keepQueuedItem.
  virtual bool dedupMe() const { return false; }
  virtual std::string getID() const { return std::string(); }
  // When to run; what lies in the past runs at once. Read when the item is queued: a change while it waits has no
  // effect.
  virtual long getTimeout() const { return 0; }
  virtual void setTimeout(long /*due*/) {}
  // Whether the item is queued again after each run, also after one that failed.
  virtual bool periodic() const { return false; }
  // Moves a periodic item's due time to that of its next run. While that lies in the past too, it is called again, so
  // that missed runs are not made up for; an item that does not get past the present runs again in a second.
  virtual void updateTimeout() {}
  // Asked of a waiting item when another one of its ID comes, due at `due` (its getTimeout), both with dedupMe true:
  // true leaves the waiting one and drops the new one, false puts the new one in its place.
  virtual bool keepQueuedItem(long /*due*/) const { return false; }
  // The name that the thread bears while the item runs (15 bytes of it), as debuggers and /proc/PID/task show it. Empty
  // leaves it the queue's name.
  virtual void setLoggingThreadName(const std::string& name) { m_loggingThreadName = name; }
  virtual std::string getLoggingThreadName() const { return m_loggingThreadName; }
  // Seconds on top of the due time, 0 or more, asked once for each queueing: a due time that many hosts share is
  // spread.
  virtual long getRandomDelay() const { return 0; }

 private:
  std::string m_loggingThreadName;
};

class RunQueueCore;

// A handle of the queue of a name. Any thread; handles may outlive the queue, which then refuses.
class RunQueue {
 public:
  explicit RunQueue(boost::shared_ptr<RunQueueCore> core) : m_core(std::move(core)) {}

  // The process's queue of that name. Where there is none, or it has been shut down: null without `create`; else a new
  // one with so many threads (at least one). `threads` says nothing about a queue that exists. Throws with `create`
  // EndOfFileException "The queue '%s' is shutting down." while the last item of a former one still runs, and
  // SystemException "Cannot start the threads of the queue '%s': %s".
  static boost::shared_ptr<RunQueue> getRunQueue(const std::string& name, bool create, int threads);

  // Runs the item on a thread of the queue once the wall clock reaches its due time; what is due at the same second
  // runs in the order of queueing, on several threads side by side. An item whose dedupMe is true meets the waiting one
  // of its ID, see keepQueuedItem; a running item no longer waits. Throws EndOfFileException "The queue '%s' is
  // shutting down.", Base_Exception "There is no item to queue." and whatever the item's own operations throw; then the
  // queue is as it was.
  void enqueue(const boost::shared_ptr<QueueAble>& item);

  // Refuses further items, drops those that wait, and returns when the running ones have ended and the threads are
  // gone. Called by an item of a queue it does not wait, for it might wait for itself.
  void shutdown();

  // The same for all queues of the process, which refuse together: an agent calls it at its end.
  static void shutdownAll();

  // For an item that takes long, now and then: throws EndOfFileException "The queue '%s' is shutting down." on a thread
  // of such a queue, which waits for the item. Elsewhere nothing happens.
  static void throwIfEnding();

 private:
  boost::shared_ptr<RunQueueCore> m_core;
};

// The owner of a process's queues: makes those of these names, one thread each, and shuts down all that there are at
// its end. Throws as RunQueue::getRunQueue.
class RunningQueues {
 public:
  explicit RunningQueues(std::initializer_list<const char*> names);
  ~RunningQueues() { RunQueue::shutdownAll(); }
  RunningQueues(const RunningQueues&) = delete;
  RunningQueues& operator=(const RunningQueues&) = delete;
};

// The timed view of the RunQueue of the same name: one queue, whichever of the two made it.
class TimeQueue {
 public:
  explicit TimeQueue(boost::shared_ptr<RunQueueCore> core) : m_core(std::move(core)) {}

  // As RunQueue::getRunQueue.
  static boost::shared_ptr<TimeQueue> getTimeQueue(const std::string& name, bool create, int threads);

  // As RunQueue::enqueue.
  void enqueue(const boost::shared_ptr<QueueAble>& item);

 private:
  boost::shared_ptr<RunQueueCore> m_core;
};

}  // namespace lumo
