#include "base/include/mutex.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <future>

namespace {

// Another thread takes and releases the lock: without an end when this one still holds it.
void takeElsewhere(lumo::Mutex& mutex) {
  std::async(std::launch::async, [&mutex] { const lumo::Lock lock(mutex); }).get();
}

TEST(Lock, HeldTwiceByOneHolderIsReleasedOnce) {
  lumo::Mutex mutex;
  lumo::Lock lock(mutex);
  lock.doLock();
  lock.unLock();
  takeElsewhere(mutex);
}

TEST(Lock, OfTheSameThreadMayBeNested) {
  lumo::Mutex mutex;
  {
    const lumo::Lock outer(mutex);
    const lumo::Lock inner(mutex);
  }
  takeElsewhere(mutex);
}

TEST(Lock, KeepsOthersOutAgainBehindAGap) {
  lumo::Mutex mutex;
  bool entered = false;  // under the mutex
  lumo::Lock lock(mutex);
  lock.unLock();
  takeElsewhere(mutex);
  lock.doLock();
  std::promise<void> comes;
  auto other = std::async(std::launch::async, [&] {
    comes.set_value();
    const lumo::Lock itsOwn(mutex);
    entered = true;
  });
  comes.get_future().wait();
  for (int i = 0; i < 1000; ++i) sched_yield();  // long enough for one that is not kept out
  EXPECT_FALSE(entered);
  lock.unLock();
  other.get();
  EXPECT_TRUE(entered);
}

}  // namespace
