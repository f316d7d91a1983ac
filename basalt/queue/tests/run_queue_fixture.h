// What the tests of the run queues share: items that write down what happened, and a queue at a clock that the test
// sets.
#pragma once

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <limits>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "basalt/run_queue.h"
#include "testsupport/manual_clock.h"

// Notes of several threads, in their order.
class Notes {
 public:
  void add(const std::string& note) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_notes.push_back(note);
    m_changed.notify_all();
  }
  // The notes as soon as there are so many; what there is when they do not come.
  std::vector<std::string> await(std::size_t count) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_until(lock, std::chrono::system_clock::now() + std::chrono::seconds(20),
                         [&] { return m_notes.size() >= count; });
    return m_notes;
  }
  std::vector<std::string> all() { return await(0); }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<std::string> m_notes;
};

// Opens once, for all who wait.
class Gate {
 public:
  void open() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_open = true;
    m_changed.notify_all();
  }
  bool await() {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_until(lock, std::chrono::system_clock::now() + std::chrono::seconds(20),
                                [&] { return m_open; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_open = false;
};

// An item that is due at a time and does what the test says.
class TestItem : public lumo::QueueAble {
 public:
  TestItem(std::string id, long due, std::function<void()> body)
      : m_id(std::move(id)), m_due(due), m_body(std::move(body)) {}
  void run() override { m_body(); }
  std::string getID() const override { return m_id; }
  long getTimeout() const override { return m_due; }
  void setTimeout(long due) override { m_due = due; }
  long getRandomDelay() const override { return delay; }

  long delay = 0;

 private:
  std::string m_id;
  long m_due;
  std::function<void()> m_body;
};

// One of each ID waits, and the earliest due time wins.
class EarliestItem : public TestItem {
 public:
  using TestItem::TestItem;
  bool dedupMe() const override { return true; }
  bool keepQueuedItem(long due) const override { return getTimeout() < due; }
};

// Runs again and again, by its own measure.
class PeriodicItem : public TestItem {
 public:
  PeriodicItem(std::string id, long due, long interval, std::function<void()> body)
      : TestItem(std::move(id), due, std::move(body)), m_interval(interval) {}
  bool periodic() const override { return true; }
  void updateTimeout() override { setTimeout(getTimeout() + m_interval); }

 private:
  long m_interval;
};

// The queue "test" with one thread, at a clock that stands still.
class RunQueueTest : public testing::Test {
 protected:
  static constexpr std::time_t idle = std::numeric_limits<std::time_t>::max();

  ~RunQueueTest() override { lumo::RunQueue::shutdownAll(); }

  template <typename Item = TestItem>
  boost::shared_ptr<Item> noting(const std::string& id, long due) {
    return boost::make_shared<Item>(id, due, [this, id] { notes.add(id); });
  }
  // The second of the test's start, and so many later.
  long at(long seconds) const { return m_start + seconds; }

  Notes notes;
  testsupport::ManualClock clock;
  boost::shared_ptr<lumo::RunQueue> queue = lumo::RunQueue::getRunQueue("test", true, 1);

 private:
  long m_start = clock.seconds();
};
