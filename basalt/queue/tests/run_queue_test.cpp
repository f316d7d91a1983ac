#include "basalt/run_queue.h"

#include <gmock/gmock.h>
#include <pthread.h>

#include <array>
#include <stdexcept>

#include "basalt/queue/tests/run_queue_fixture.h"
#include "base/include/exceptions.h"
#include "testsupport/failure_of.h"
#include "testsupport/log_capture.h"
#include "testsupport/no_further_thread.h"

namespace {

using lumo::QueueAble;
using lumo::RunQueue;
using lumo::TimeQueue;
using testing::ElementsAre;
using testing::IsEmpty;
using testsupport::wordsOf;

std::string threadName() {
  std::array<char, 16> name{};
  pthread_getname_np(pthread_self(), name.data(), name.size());
  return name.data();
}

class BareItem : public QueueAble {
 public:
  void run() override {}
};

TEST(QueueAbleTest, DefaultsAreThoseOfAnItemThatRunsOnceAtOnce) {
  BareItem item;
  EXPECT_FALSE(item.dedupMe());
  EXPECT_EQ(item.getID(), "");
  item.setTimeout(77);
  item.updateTimeout();
  EXPECT_EQ(item.getTimeout(), 0);
  EXPECT_FALSE(item.periodic());
  EXPECT_FALSE(item.keepQueuedItem(1));
  EXPECT_EQ(item.getLoggingThreadName(), "");
  item.setLoggingThreadName("refresh");
  EXPECT_EQ(item.getLoggingThreadName(), "refresh");
  EXPECT_EQ(item.getRandomDelay(), 0);
}

TEST(RunQueueNamesTest, AreThoseOfTheAgentsTwoQueues) {
  EXPECT_STREQ(lumo::MAIN_RUN_QUEUE, "main");
  EXPECT_STREQ(lumo::OPX_RUN_QUEUE, "opx");
}

TEST_F(RunQueueTest, IsMadeOnlyWhenAskedFor) {
  EXPECT_EQ(RunQueue::getRunQueue("another", false, 1), nullptr);
  EXPECT_EQ(TimeQueue::getTimeQueue("another", false, 1), nullptr);
  EXPECT_NE(RunQueue::getRunQueue("another", true, 0), nullptr);
  EXPECT_NE(RunQueue::getRunQueue("another", false, 0), nullptr);
}

TEST_F(RunQueueTest, IsOneForItsNameAndBothViews) {
  Gate running;
  Gate go;
  queue->enqueue(boost::make_shared<TestItem>("first", 0, [&] {
    running.open();
    go.await();
    notes.add("first");
  }));
  ASSERT_TRUE(running.await());
  // With one thread in all, what is queued by any road waits for it.
  RunQueue::getRunQueue("test", true, 5)->enqueue(noting("second", 0));
  TimeQueue::getTimeQueue("test", false, 0)->enqueue(noting("third", 0));
  EXPECT_THAT(notes.all(), IsEmpty());
  go.open();
  EXPECT_THAT(notes.await(3), ElementsAre("first", "second", "third"));
}

TEST_F(RunQueueTest, MadeByTheTimedViewIsFoundByTheOther) {
  TimeQueue::getTimeQueue("another", true, 1);
  RunQueue::getRunQueue("another", false, 0)->enqueue(noting("item", 0));
  EXPECT_THAT(notes.await(1), ElementsAre("item"));
}

TEST_F(RunQueueTest, HasAsManyThreadsAsAskedFor) {
  const auto wide = RunQueue::getRunQueue("wide", true, 3);
  std::array<Gate, 3> running;
  Gate go;
  for (Gate& gate : running) {
    wide->enqueue(boost::make_shared<TestItem>("", 0, [&] {
      gate.open();
      go.await();
      notes.add("done");
    }));
  }
  for (Gate& gate : running) ASSERT_TRUE(gate.await());  // all three at the same time
  wide->enqueue(noting("fourth", 0));
  EXPECT_THAT(notes.all(), IsEmpty());
  go.open();
  EXPECT_EQ(notes.await(4).size(), 4U);
}

TEST_F(RunQueueTest, RefusesNothingAsAnItem) {
  EXPECT_EQ(wordsOf<lumo::Base_Exception>([&] { queue->enqueue(nullptr); }), "There is no item to queue.");
}

TEST_F(RunQueueTest, RunsEqualDueTimesInTheOrderOfQueueing) {
  for (const char* id : {"c", "a", "b"}) queue->enqueue(noting(id, at(10)));
  queue->enqueue(noting("earlier", at(9)));
  clock.advance(std::chrono::seconds(10));
  EXPECT_THAT(notes.await(4), ElementsAre("earlier", "c", "a", "b"));
}

TEST_F(RunQueueTest, WithoutDedupEachItemOfAnIdRuns) {
  for (int i = 0; i < 3; ++i) queue->enqueue(noting("OPXHandler", at(10)));
  queue->enqueue(noting<EarliestItem>("OPXHandler", at(10)));  // meets none but its like
  clock.advance(std::chrono::seconds(10));
  EXPECT_EQ(notes.await(4).size(), 4U);
}

TEST_F(RunQueueTest, WithDedupOtherIdsStandSideBySide) {
  queue->enqueue(noting<EarliestItem>("one", at(10)));
  queue->enqueue(noting<EarliestItem>("two", at(5)));
  clock.advance(std::chrono::seconds(10));
  EXPECT_THAT(notes.await(2), ElementsAre("two", "one"));
}

TEST_F(RunQueueTest, ARunningItemMayQueueItsSuccessor) {
  Gate over;
  queue->enqueue(boost::make_shared<EarliestItem>("refresh", 0, [&] {
    notes.add("first");
    queue->enqueue(noting<EarliestItem>("refresh", at(60)));
    queue->enqueue(noting<EarliestItem>("refresh", at(90)));  // later: the one that waits stays
    over.open();
  }));
  ASSERT_TRUE(over.await());
  ASSERT_TRUE(clock.awaitWaiting(at(60)));
  EXPECT_THAT(notes.all(), ElementsAre("first"));
  clock.advance(std::chrono::seconds(90));
  ASSERT_TRUE(clock.awaitWaiting(idle));
  EXPECT_THAT(notes.all(), ElementsAre("first", "refresh"));
}

TEST_F(RunQueueTest, LogsWhatAnItemThrowsAndGoesOn) {
  const testsupport::LogCapture log;
  queue->enqueue(
      boost::make_shared<TestItem>("one", 0, [] { LUMO_THROW(lumo::IOException, -1, "The peer is gone."); }));
  queue->enqueue(boost::make_shared<TestItem>("two", 0, [] { throw std::out_of_range("too far"); }));
  queue->enqueue(boost::make_shared<TestItem>("three", 0, [] { throw 3; }));
  queue->enqueue(noting("four", 0));
  EXPECT_THAT(notes.await(1), ElementsAre("four"));
  EXPECT_THAT(log.texts(), ElementsAre("ERROR base.queue: Queue item 'one' failed: The peer is gone.",
                                       "ERROR base.queue: Queue item 'two' failed: too far",
                                       "ERROR base.queue: Queue item 'three' failed: an exception of an unknown kind"));
}

TEST_F(RunQueueTest, ThreadsBearTheItemsName) {
  queue->enqueue(boost::make_shared<TestItem>("", 0, [this] { notes.add(threadName()); }));
  const auto named = boost::make_shared<TestItem>("", 0, [this] { notes.add(threadName()); });
  named->setLoggingThreadName("connector refresh");
  queue->enqueue(named);
  const auto failing = boost::make_shared<TestItem>("", 0, [this] {
    notes.add(threadName());
    throw std::runtime_error("failed");
  });
  failing->setLoggingThreadName("failing");
  queue->enqueue(failing);
  queue->enqueue(boost::make_shared<TestItem>("", 0, [this] { notes.add(threadName()); }));
  EXPECT_THAT(notes.await(4), ElementsAre("test", "connector refre", "failing", "test"));
}

TEST_F(RunQueueTest, SaysThatItsThreadsCannotBeStarted) {
  {
    const testsupport::NoFurtherThread scarcity;
    EXPECT_EQ(wordsOf<lumo::SystemException>([] { RunQueue::getRunQueue("scarce", true, 2); }),
              "Cannot start the threads of the queue 'scarce': Resource temporarily unavailable");
    EXPECT_FALSE(RunQueue::getRunQueue("scarce", false, 2));
  }
  const auto scarce = RunQueue::getRunQueue("scarce", true, 2);
  scarce->enqueue(noting("later", 0));
  EXPECT_THAT(notes.await(1), ElementsAre("later"));
}

// What an item throws before it waits leaves the queue as it was.
TEST_F(RunQueueTest, ThrowsWhatTheItemsOwnOperationsThrow) {
  class Undecided : public EarliestItem {
   public:
    using EarliestItem::EarliestItem;
    bool keepQueuedItem(long) const override { throw std::logic_error("undecided"); }
  };
  queue->enqueue(noting<Undecided>("one", at(10)));
  EXPECT_EQ(wordsOf<std::logic_error>([&] { queue->enqueue(noting<EarliestItem>("one", at(5))); }), "undecided");
  clock.advance(std::chrono::seconds(10));
  ASSERT_TRUE(clock.awaitWaiting(idle));
  EXPECT_THAT(notes.all(), ElementsAre("one"));
}

// An item's destructor may call the queue: it would stand still for good if the queue's lock were held.
TEST_F(RunQueueTest, LetsGoOfItemsOutsideItsLock) {
  class Dying : public EarliestItem {
   public:
    Dying(long due, boost::shared_ptr<RunQueue> in, boost::shared_ptr<QueueAble> last)
        : EarliestItem("dying", due, [] {}), m_in(std::move(in)), m_last(std::move(last)) {}
    ~Dying() override { m_in->enqueue(m_last); }

   private:
    boost::shared_ptr<RunQueue> m_in;
    boost::shared_ptr<QueueAble> m_last;
  };
  queue->enqueue(boost::make_shared<Dying>(at(20), queue, noting("replaced", 0)));
  queue->enqueue(boost::make_shared<Dying>(at(10), queue, noting("run", 0)));
  EXPECT_THAT(notes.await(1), ElementsAre("replaced"));
  queue->enqueue(boost::make_shared<Dying>(at(30), queue, noting("turned away", 0)));
  EXPECT_THAT(notes.await(2), ElementsAre("replaced", "turned away"));
  clock.advance(std::chrono::seconds(10));
  EXPECT_THAT(notes.await(3), ElementsAre("replaced", "turned away", "run"));
}

}  // namespace
