#include <gmock/gmock.h>

#include <stdexcept>

#include "basalt/queue/tests/run_queue_fixture.h"
#include "testsupport/log_capture.h"

namespace {

using std::chrono::hours;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

class RunQueueTimeTest : public RunQueueTest {};

TEST_F(RunQueueTimeTest, AnItemRunsWhenItsSecondComes) {
  queue->enqueue(noting("item", at(900)));
  ASSERT_TRUE(clock.awaitWaiting(at(900)));
  clock.advance(seconds(899));
  ASSERT_TRUE(clock.awaitWaiting(at(900)));
  EXPECT_THAT(notes.all(), IsEmpty());
  clock.advance(seconds(1));
  EXPECT_THAT(notes.await(1), ElementsAre("item"));
}

TEST_F(RunQueueTimeTest, WhatIsDueBeforeTheRestTakesTheThreadFromItsWait) {
  queue->enqueue(noting("later", at(900)));
  ASSERT_TRUE(clock.awaitWaiting(at(900)));
  queue->enqueue(noting("past", at(-1)));
  EXPECT_THAT(notes.await(1), ElementsAre("past"));
}

TEST_F(RunQueueTimeTest, TheEarliestRefreshWins) {
  queue->enqueue(noting<EarliestItem>("CloudConnectorsRefresh", at(8 * 3600)));
  ASSERT_TRUE(clock.awaitWaiting(at(8 * 3600)));
  queue->enqueue(noting<EarliestItem>("CloudConnectorsRefresh", at(900)));
  ASSERT_TRUE(clock.awaitWaiting(at(900)));
  queue->enqueue(noting<EarliestItem>("CloudConnectorsRefresh", at(8 * 3600)));
  clock.advance(seconds(900));
  EXPECT_EQ(notes.await(1).size(), 1U);
  ASSERT_TRUE(clock.awaitWaiting(idle));  // neither of the others was left
  clock.advance(hours(9));
  ASSERT_TRUE(clock.awaitWaiting(idle));
  EXPECT_EQ(notes.all().size(), 1U);
}

TEST_F(RunQueueTimeTest, OfEqualDueTimesTheNewRefreshTakesThePlace) {
  queue->enqueue(boost::make_shared<EarliestItem>("refresh", at(900), [this] { notes.add("old"); }));
  queue->enqueue(boost::make_shared<EarliestItem>("refresh", at(900), [this] { notes.add("new"); }));
  clock.advance(seconds(900));
  ASSERT_TRUE(clock.awaitWaiting(idle));
  EXPECT_THAT(notes.all(), ElementsAre("new"));
}

TEST_F(RunQueueTimeTest, AClockSetBackMakesItemsWaitForTheirSecond) {
  queue->enqueue(noting("item", at(900)));
  ASSERT_TRUE(clock.awaitWaiting(at(900)));
  clock.set(clock.now() - hours(1));
  ASSERT_TRUE(clock.awaitWaiting(at(900)));
  clock.advance(seconds(900));  // the second of the test's start is still to come
  ASSERT_TRUE(clock.awaitWaiting(at(900)));
  EXPECT_THAT(notes.all(), IsEmpty());
  queue->enqueue(noting("now", clock.seconds()));
  EXPECT_THAT(notes.await(1), ElementsAre("now"));
  clock.advance(hours(1));
  EXPECT_THAT(notes.await(2), ElementsAre("now", "item"));
}

TEST_F(RunQueueTimeTest, AClockSetForwardByADayRunsAllThatIsDueOnceInItsOrder) {
  queue->enqueue(noting("in 8 hours", at(8 * 3600)));
  queue->enqueue(noting("in an hour", at(3600)));
  queue->enqueue(noting("in two days", at(48 * 3600)));
  ASSERT_TRUE(clock.awaitWaiting(at(3600)));
  clock.set(clock.now() + hours(24));
  EXPECT_THAT(notes.await(2), ElementsAre("in an hour", "in 8 hours"));
  ASSERT_TRUE(clock.awaitWaiting(at(48 * 3600)));
  EXPECT_EQ(notes.all().size(), 2U);
}

TEST_F(RunQueueTimeTest, AClockSetForwardAndBackAgainRunsNothingTwice) {
  queue->enqueue(noting("item", at(3600)));
  ASSERT_TRUE(clock.awaitWaiting(at(3600)));
  clock.set(clock.now() + hours(24));
  EXPECT_EQ(notes.await(1).size(), 1U);
  clock.set(clock.now() - hours(24));
  clock.advance(hours(2));
  ASSERT_TRUE(clock.awaitWaiting(idle));
  EXPECT_EQ(notes.all().size(), 1U);
}

TEST_F(RunQueueTimeTest, TheRandomDelayIsOnTopOfTheDueTime) {
  const auto spread = noting("spread", at(60));
  spread->delay = 30;
  queue->enqueue(spread);
  ASSERT_TRUE(clock.awaitWaiting(at(90)));
  clock.advance(seconds(89));
  ASSERT_TRUE(clock.awaitWaiting(at(90)));
  EXPECT_THAT(notes.all(), IsEmpty());
  clock.advance(seconds(1));
  EXPECT_THAT(notes.await(1), ElementsAre("spread"));
}

TEST_F(RunQueueTimeTest, ANegativeRandomDelayCountsAsNone) {
  const auto hasty = noting("hasty", at(60));
  hasty->delay = -30;
  queue->enqueue(hasty);
  ASSERT_TRUE(clock.awaitWaiting(at(60)));
}

TEST_F(RunQueueTimeTest, TheEndsOfTimeAreTimesLikeOthers) {
  const auto last = noting("last", std::numeric_limits<long>::max());
  last->delay = std::numeric_limits<long>::max();
  queue->enqueue(last);
  queue->enqueue(noting("first", std::numeric_limits<long>::min()));
  EXPECT_THAT(notes.await(1), ElementsAre("first"));
  ASSERT_TRUE(clock.awaitWaiting(idle));
  EXPECT_EQ(notes.all().size(), 1U);
}

TEST_F(RunQueueTimeTest, APeriodicItemRunsAtItsInterval) {
  queue->enqueue(boost::make_shared<PeriodicItem>("tick", at(10), 600, [this] { notes.add("tick"); }));
  for (std::size_t run = 0; run < 3; ++run) {
    const long due = at(10 + static_cast<long>(run) * 600);
    ASSERT_TRUE(clock.awaitWaiting(due));
    EXPECT_EQ(notes.all().size(), run);
    clock.set(std::chrono::system_clock::from_time_t(due));
    EXPECT_EQ(notes.await(run + 1).size(), run + 1);
  }
}

TEST_F(RunQueueTimeTest, APeriodicItemGoesOnAfterAFailure) {
  const testsupport::LogCapture log;
  queue->enqueue(boost::make_shared<PeriodicItem>("tick", at(0), 600, [] { throw std::runtime_error("no tick"); }));
  ASSERT_TRUE(clock.awaitWaiting(at(600)));
  EXPECT_THAT(log.texts(), ElementsAre("ERROR base.queue: Queue item 'tick' failed: no tick"));
}

TEST_F(RunQueueTimeTest, APeriodicItemDoesNotMakeUpForMissedRuns) {
  queue->enqueue(boost::make_shared<PeriodicItem>("tick", at(600), 600, [this] { notes.add("tick"); }));
  ASSERT_TRUE(clock.awaitWaiting(at(600)));
  clock.set(std::chrono::system_clock::from_time_t(at(24 * 3600 + 5)));
  ASSERT_TRUE(clock.awaitWaiting(at(24 * 3600 + 600)));
  EXPECT_EQ(notes.all().size(), 1U);
}

TEST_F(RunQueueTimeTest, APeriodicItemWhoseDueTimeStandsStillRunsEachSecond) {
  queue->enqueue(boost::make_shared<PeriodicItem>("tick", 0, 0, [this] { notes.add("tick"); }));
  ASSERT_TRUE(clock.awaitWaiting(at(1)));
  EXPECT_EQ(notes.all().size(), 1U);
}

TEST_F(RunQueueTimeTest, APeriodicItemMeetsWhatItsRunHasQueued) {
  class PeriodicRefresh : public EarliestItem {
   public:
    using EarliestItem::EarliestItem;
    bool periodic() const override { return true; }
    void updateTimeout() override { setTimeout(getTimeout() + 8 * 3600); }
  };
  queue->enqueue(boost::make_shared<PeriodicRefresh>(
      "refresh", at(0), [this] { queue->enqueue(noting<EarliestItem>("refresh", at(900))); }));
  ASSERT_TRUE(clock.awaitWaiting(at(900)));
  clock.advance(hours(24));
  ASSERT_TRUE(clock.awaitWaiting(idle));  // the periodic one is not there any more
  EXPECT_THAT(notes.all(), ElementsAre("refresh"));
}

TEST_F(RunQueueTimeTest, ADueTimeChangedWhileTheItemWaitsHasNoEffect) {
  const auto item = noting("item", at(900));
  queue->enqueue(item);
  ASSERT_TRUE(clock.awaitWaiting(at(900)));
  item->setTimeout(at(10));
  clock.advance(seconds(10));
  ASSERT_TRUE(clock.awaitWaiting(at(900)));
  EXPECT_THAT(notes.all(), IsEmpty());
}

// A thread that is busy when something comes due leaves it to one that waited for nothing or for a later time.
TEST_F(RunQueueTimeTest, ABusyThreadHandsOverTheWatch) {
  const auto pair = lumo::RunQueue::getRunQueue("pair", true, 2);
  Gate go;
  Gate running;
  pair->enqueue(boost::make_shared<TestItem>("busy", at(10), [&] {
    running.open();
    go.await();
  }));
  pair->enqueue(noting("next", at(20)));
  clock.advance(seconds(10));
  ASSERT_TRUE(running.await());
  ASSERT_TRUE(clock.awaitWaiting(at(20)));
  clock.advance(seconds(10));
  EXPECT_THAT(notes.await(1), ElementsAre("next"));
  go.open();
  pair->shutdown();
}

}  // namespace
