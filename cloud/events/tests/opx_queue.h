// The queue of privilege events in tests: its thread held and let go, and where it has come to.
#pragma once

#include <boost/make_shared.hpp>
#include <chrono>
#include <functional>
#include <future>
#include <utility>

#include "basalt/process/clock.h"
#include "basalt/run_queue.h"

// The queue with its one thread, from construction to destruction.
class OpxQueue {
 public:
  OpxQueue() = default;
  ~OpxQueue() {
    letGo();
    lumo::RunQueue::shutdownAll();
  }
  OpxQueue(const OpxQueue&) = delete;
  OpxQueue& operator=(const OpxQueue&) = delete;

  // What is due waits until letGo.
  void hold() {
    m_held = std::promise<void>();
    m_isHeld = true;
    enqueue(0, [until = m_held.get_future().share()] { until.wait(); });
  }
  void letGo() {
    if (std::exchange(m_isHeld, false)) m_held.set_value();
  }
  // Returns once everything that is due by now has run.
  void runDue() {
    letGo();
    std::promise<void> reached;
    enqueue(static_cast<long>(std::chrono::system_clock::to_time_t(lumo::Clock::getInstance().now())),
            [&reached] { reached.set_value(); });
    reached.get_future().wait();
  }
  lumo::RunQueue& queue() { return *m_queue; }

 private:
  class Item : public lumo::QueueAble {
   public:
    Item(long due, std::function<void()> work) : m_due(due), m_work(std::move(work)) {}
    void run() override { m_work(); }
    long getTimeout() const override { return m_due; }

   private:
    const long m_due;
    const std::function<void()> m_work;
  };

  void enqueue(long due, std::function<void()> work) {
    m_queue->enqueue(boost::make_shared<Item>(due, std::move(work)));
  }

  const boost::shared_ptr<lumo::RunQueue> m_queue = lumo::RunQueue::getRunQueue(lumo::OPX_RUN_QUEUE, true, 1);
  std::promise<void> m_held;
  bool m_isHeld = false;
};
