// The queue behind the handles: its waiting items and its threads.
#pragma once

#include <boost/shared_ptr.hpp>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "basalt/run_queue.h"

namespace lumo {

// Any thread. Each of its threads shares in it, so it lives as long as one of them.
class RunQueueCore {
 public:
  // A queue with its threads running. Throws SystemException "Cannot start the threads of the queue '%s': %s".
  static boost::shared_ptr<RunQueueCore> start(const std::string& name, int threads);

  explicit RunQueueCore(std::string name) : m_name(std::move(name)) {}
  ~RunQueueCore();
  RunQueueCore(const RunQueueCore&) = delete;
  RunQueueCore& operator=(const RunQueueCore&) = delete;

  // See RunQueue::enqueue.
  void enqueue(const boost::shared_ptr<QueueAble>& item);

  // Refuses items from now on and drops those that wait. Does not wait.
  void refuse();
  // After refuse: returns when the threads are gone; at once where a thread of any queue calls.
  void awaitEnd();

  // See RunQueue::throwIfEnding.
  static void throwIfEnding();

  bool refuses();
  // Whether it refuses and no item runs any more.
  bool ended();

 private:
  struct Waiting {
    boost::shared_ptr<QueueAble> item;
    std::string id;
    bool dedup;
  };
  // Due time and number of the queueing: the order of running.
  using Place = std::pair<std::time_t, std::uint64_t>;
  using WaitingItems = std::map<Place, Waiting>;

  [[noreturn]] void throwRefusal() const;
  bool insert(const boost::shared_ptr<QueueAble>& item, std::time_t earliest);
  WaitingItems::iterator waitingDouble(const Waiting& other);
  void work();
  void execute(const Waiting& waiting);

  const std::string m_name;
  std::mutex m_mutex;
  std::condition_variable m_changed;  // for the threads: there is something new to look at
  std::condition_variable m_ended;    // the last thread has left its work
  WaitingItems m_waiting;
  std::uint64_t m_queueings = 0;
  bool m_refusing = false;
  std::size_t m_working = 0;  // threads that have not left their work
  std::vector<std::thread> m_threads;
};

}  // namespace lumo
