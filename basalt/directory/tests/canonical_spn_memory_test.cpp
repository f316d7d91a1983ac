#include "basalt/directory/canonical_spn_memory.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "testsupport/manual_clock.h"

namespace {

using lumo::SpnMemory;
using std::chrono::milliseconds;

constexpr milliseconds MOMENT{1};

TEST(SpnMemory, TellsANameUntilItIsTooOld) {
  testsupport::ManualClock clock;
  SpnMemory memory;
  EXPECT_EQ(memory.read("HTTP/a"), std::nullopt);
  memory.store("HTTP/a", "HTTP/A@X");
  clock.set(clock.now() + std::chrono::hours(24));
  clock.advance(SpnMemory::LIFE - MOMENT);
  EXPECT_EQ(memory.read("HTTP/a"), "HTTP/A@X") << "the wall clock does not count";
  clock.advance(MOMENT);
  EXPECT_EQ(memory.read("HTTP/a"), std::nullopt);
  EXPECT_EQ(memory.size(), 0U);
}

TEST(SpnMemory, ForgetsSoonThatThereIsNoName) {
  testsupport::ManualClock clock;
  SpnMemory memory;
  memory.store("HTTP/a", "");
  clock.advance(SpnMemory::MISS_LIFE - MOMENT);
  EXPECT_EQ(memory.read("HTTP/a"), "");
  clock.advance(MOMENT);
  EXPECT_EQ(memory.read("HTTP/a"), std::nullopt);
}

TEST(SpnMemory, TakesTheLastAnswer) {
  testsupport::ManualClock clock;
  SpnMemory memory;
  memory.store("HTTP/a", "");
  clock.advance(SpnMemory::MISS_LIFE - MOMENT);
  memory.store("HTTP/a", "HTTP/A@X");
  clock.advance(SpnMemory::MISS_LIFE);
  EXPECT_EQ(memory.read("HTTP/a"), "HTTP/A@X");
  EXPECT_EQ(memory.size(), 1U);
}

TEST(SpnMemory, KeepsSoManyNamesAndNoMore) {
  SpnMemory memory;
  const auto name = [](std::size_t number) { return "HTTP/" + std::to_string(number); };
  for (std::size_t i = 0; i <= SpnMemory::MAX_NAMES; ++i) memory.store(name(i), name(i) + "@X");
  EXPECT_EQ(memory.size(), SpnMemory::MAX_NAMES);
  EXPECT_EQ(memory.read(name(0)), std::nullopt) << "the oldest";
  EXPECT_EQ(memory.read(name(1)), name(1) + "@X");
  EXPECT_EQ(memory.read(name(SpnMemory::MAX_NAMES)), name(SpnMemory::MAX_NAMES) + "@X");
}

}  // namespace
