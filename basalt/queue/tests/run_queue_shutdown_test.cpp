#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <boost/weak_ptr.hpp>
#include <thread>

#include "basalt/queue/tests/run_queue_fixture.h"
#include "base/include/exceptions.h"

namespace {

using lumo::RunQueue;
using lumo::TimeQueue;
using testing::ElementsAre;
using testing::IsEmpty;

class RunQueueShutdownTest : public RunQueueTest {
 protected:
  std::string refusal(const boost::shared_ptr<RunQueue>& of) {
    try {
      of->enqueue(noting("too late", 0));
    } catch (const lumo::EndOfFileException& failure) {
      return failure.what();
    }
    return "queued";
  }
};

TEST_F(RunQueueShutdownTest, RefusesFurtherItems) {
  const auto timed = TimeQueue::getTimeQueue("test", false, 0);
  queue->shutdown();
  EXPECT_EQ(refusal(queue), "The queue 'test' is shutting down.");
  EXPECT_THROW(timed->enqueue(noting("too late", 0)), lumo::EndOfFileException);
  queue->shutdown();  // once more does no harm
}

TEST_F(RunQueueShutdownTest, IsNotFoundUntilMadeAnew) {
  queue->shutdown();
  EXPECT_EQ(RunQueue::getRunQueue("test", false, 0), nullptr);
  EXPECT_EQ(TimeQueue::getTimeQueue("test", false, 0), nullptr);
  const auto anew = RunQueue::getRunQueue("test", true, 1);
  anew->enqueue(noting("item", 0));
  EXPECT_THAT(notes.await(1), ElementsAre("item"));
  EXPECT_EQ(refusal(queue), "The queue 'test' is shutting down.");  // the former one's handle
}

TEST_F(RunQueueShutdownTest, LetsTheRunningItemEndAndDropsThoseThatWait) {
  Gate running;
  Gate go;
  queue->enqueue(boost::make_shared<PeriodicItem>("running", 0, 0, [&] {
    running.open();
    go.await();
    notes.add(refusal(queue));
    notes.add("ended");
  }));
  auto due = noting("due", 0);
  auto later = noting("later", at(900));
  const boost::weak_ptr<TestItem> dropped[] = {due, later};
  queue->enqueue(std::exchange(due, nullptr));
  queue->enqueue(std::exchange(later, nullptr));
  ASSERT_TRUE(running.await());
  std::thread shutting([&] {
    queue->shutdown();
    notes.add("shut down");
  });
  // The queue refuses as soon as it is not found any more.
  while (RunQueue::getRunQueue("test", false, 0)) std::this_thread::yield();
  EXPECT_THROW(RunQueue::getRunQueue("test", true, 1), lumo::EndOfFileException);
  EXPECT_THAT(notes.all(), IsEmpty());
  go.open();
  shutting.join();
  EXPECT_THAT(notes.all(), ElementsAre("The queue 'test' is shutting down.", "ended", "shut down"));
  for (const auto& item : dropped) EXPECT_TRUE(item.expired());
}

TEST_F(RunQueueShutdownTest, IsToldToAnItemThatAsksAndToNobodyElse) {
  Gate running;
  Gate go;
  queue->enqueue(boost::make_shared<TestItem>("running", 0, [&] {
    RunQueue::throwIfEnding();
    running.open();
    go.await();
    try {
      RunQueue::throwIfEnding();
    } catch (const lumo::EndOfFileException& failure) {
      notes.add(failure.what());
    }
  }));
  ASSERT_TRUE(running.await());
  std::thread shutting([this] { queue->shutdown(); });
  while (RunQueue::getRunQueue("test", false, 0)) std::this_thread::yield();
  EXPECT_NO_THROW(RunQueue::throwIfEnding());
  const auto other = RunQueue::getRunQueue("zone", true, 1);
  other->enqueue(boost::make_shared<TestItem>("other", 0, [&] {
    RunQueue::throwIfEnding();
    notes.add("goes on");
  }));
  EXPECT_THAT(notes.await(1), ElementsAre("goes on"));
  go.open();
  shutting.join();
  EXPECT_THAT(notes.all(), ElementsAre("goes on", "The queue 'test' is shutting down."));
}

TEST_F(RunQueueShutdownTest, ReturnsWhenTheThreadsAreGone) {
  struct Farewell {
    ~Farewell() { notes->add("thread gone"); }
    Notes* notes;
  };
  queue->enqueue(boost::make_shared<TestItem>("", 0, [this] {
    thread_local const Farewell farewell{&notes};
    notes.add("run");
  }));
  EXPECT_EQ(notes.await(1).size(), 1U);
  queue->shutdown();
  EXPECT_THAT(notes.all(), ElementsAre("run", "thread gone"));
}

TEST_F(RunQueueShutdownTest, WakesAThreadThatWaits) {
  queue->enqueue(noting("item", at(900)));
  ASSERT_TRUE(clock.awaitWaiting(at(900)));
  queue->shutdown();
  clock.advance(std::chrono::seconds(900));
  EXPECT_THAT(notes.all(), IsEmpty());
}

TEST_F(RunQueueShutdownTest, OfAllRefusesInAllQueuesBeforeItWaits) {
  const auto other = RunQueue::getRunQueue("zone", true, 2);
  Gate running;
  Gate go;
  queue->enqueue(boost::make_shared<TestItem>("running", 0, [&] {
    running.open();
    notes.add(go.await() ? "let go" : "left waiting");
  }));
  ASSERT_TRUE(running.await());
  std::thread shutting([] { RunQueue::shutdownAll(); });
  while (RunQueue::getRunQueue("zone", false, 0)) std::this_thread::yield();
  EXPECT_EQ(refusal(other), "The queue 'zone' is shutting down.");
  go.open();
  shutting.join();
  EXPECT_THAT(notes.all(), ElementsAre("let go"));
  EXPECT_EQ(RunQueue::getRunQueue("test", false, 0), nullptr);
}

TEST_F(RunQueueShutdownTest, ByAnItemDoesNotWaitForItself) {
  queue->enqueue(boost::make_shared<TestItem>("last", 0, [this] {
    queue->shutdown();
    RunQueue::shutdownAll();
    notes.add("still here");
  }));
  EXPECT_THAT(notes.await(1), ElementsAre("still here"));
  queue->shutdown();
  EXPECT_EQ(RunQueue::getRunQueue("test", false, 0), nullptr);
}

// Nobody but its own thread holds the queue when it goes.
TEST_F(RunQueueShutdownTest, AQueueThatWasShutDownByItsItemAndReplacedGoesByItself) {
  Gate over;
  queue->enqueue(boost::make_shared<TestItem>("last", 0, [&] {
    queue->shutdown();
    over.open();
  }));
  ASSERT_TRUE(over.await());
  queue.reset();
  while (!queue) {
    try {
      queue = RunQueue::getRunQueue("test", true, 1);
    } catch (const lumo::EndOfFileException&) {
      std::this_thread::yield();
    }
  }
  queue->enqueue(noting("item", 0));
  EXPECT_THAT(notes.await(1), ElementsAre("item"));
}

TEST_F(RunQueueShutdownTest, BySeveralAtOnceReturnsToEachAtTheEnd) {
  Gate running;
  Gate go;
  std::atomic<bool> ended{false};
  queue->enqueue(boost::make_shared<TestItem>("running", 0, [&] {
    running.open();
    go.await();
    ended = true;
  }));
  ASSERT_TRUE(running.await());
  std::vector<std::thread> shutting;
  for (int i = 0; i < 4; ++i) {
    shutting.emplace_back([&] {
      queue->shutdown();
      notes.add(ended ? "after" : "before");
    });
  }
  go.open();
  for (auto& thread : shutting) thread.join();
  EXPECT_THAT(notes.all(), ElementsAre("after", "after", "after", "after"));
}

// No item is lost and none runs twice, whoever queues it and however many threads wait.
TEST_F(RunQueueShutdownTest, TakesItemsFromManyThreads) {
  constexpr std::size_t callers = 8;
  constexpr std::size_t each = 200;
  const auto wide = RunQueue::getRunQueue("wide", true, 4);
  std::vector<std::atomic<int>> runs(callers * each);
  std::vector<std::thread> threads;
  for (std::size_t caller = 0; caller < callers; ++caller) {
    threads.emplace_back([&, caller] {
      for (std::size_t i = 0; i < each; ++i) {
        const std::size_t number = caller * each + i;
        // Half of them at once, half when the clock has moved.
        wide->enqueue(boost::make_shared<TestItem>("", i % 2 == 0 ? 0 : at(static_cast<long>(i)), [&, number] {
          ++runs[number];
          notes.add("run");
        }));
      }
    });
  }
  for (std::size_t i = 0; i < each; ++i) clock.advance(std::chrono::seconds(1));
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(notes.await(callers * each).size(), callers * each);
  for (const auto& run : runs) EXPECT_EQ(run, 1);
}

TEST_F(RunQueueShutdownTest, MayComeWhileManyThreadsQueue) {
  const auto wide = RunQueue::getRunQueue("wide", true, 4);
  std::atomic<int> accepted{0};
  std::atomic<int> refused{0};
  std::vector<std::thread> threads;
  for (int caller = 0; caller < 4; ++caller) {
    threads.emplace_back([&] {
      while (refused < 4) {
        try {
          wide->enqueue(noting<EarliestItem>("item", 0));
          ++accepted;
        } catch (const lumo::EndOfFileException&) {
          ++refused;
        }
      }
    });
  }
  while (accepted < 100) std::this_thread::yield();
  wide->shutdown();
  const std::size_t runs = notes.all().size();
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(notes.all().size(), runs);
}

// The clock of the system itself: an idle queue hears of an item, and one that waits for a second hears of its end.
TEST_F(RunQueueShutdownTest, IsTheEndOfItsOwner) {
  boost::shared_ptr<RunQueue> first;
  {
    const lumo::RunningQueues queues({"first", "second"});
    first = RunQueue::getRunQueue("first", false, 0);
    ASSERT_NE(first, nullptr);
    EXPECT_NE(RunQueue::getRunQueue("second", false, 0), nullptr);
    first->enqueue(noting("item", 0));
    EXPECT_THAT(notes.await(1), ElementsAre("item"));
  }
  EXPECT_EQ(refusal(first), "The queue 'first' is shutting down.");
  EXPECT_EQ(RunQueue::getRunQueue("second", false, 0), nullptr);
  EXPECT_EQ(refusal(queue), "The queue 'test' is shutting down.");  // all that there are
}

TEST(RunQueueSystemClockTest, RunsAtOnceAndAtTheNextSecond) {
  Notes notes;
  const auto queue = RunQueue::getRunQueue("system clock", true, 2);
  const std::time_t next = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()) + 1;
  queue->enqueue(boost::make_shared<TestItem>("", next, [&] {
    notes.add(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()) >= next ? "in time" : "early");
  }));
  queue->enqueue(boost::make_shared<TestItem>("", std::numeric_limits<long>::max(), [&] { notes.add("never"); }));
  queue->enqueue(boost::make_shared<TestItem>("", 0, [&] { notes.add("at once"); }));
  // The next second may be here before the other item is queued.
  EXPECT_THAT(notes.await(2), testing::UnorderedElementsAre("at once", "in time"));
  queue->shutdown();
}

}  // namespace
