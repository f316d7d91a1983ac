#include <gtest/gtest.h>

#include <cstddef>
#include <limits>
#include <new>
#include <vector>

#include "base/include/shredder.h"

TEST(MlockAlloc, RefusesASizeThatOnlyOverflowMakesSmall) {
  lumo::MlockAlloc<long> allocator;
  const std::size_t wrapsToOne = std::numeric_limits<std::size_t>::max() / sizeof(long) + 2;
  EXPECT_THROW(allocator.deallocate(allocator.allocate(wrapsToOne), wrapsToOne), std::bad_alloc);
  std::vector<long, lumo::MlockAlloc<long>> numbers(3, 7L);
  EXPECT_EQ(numbers[2], 7L);
}

TEST(Shredder, TakesTextBehindAZeroByteToo) {
  const lumo::Shredder copy(lumo::Shredder2("ab\0cd", 5));
  EXPECT_EQ(copy.size(), 5u);
  EXPECT_EQ(copy.c_str()[4], 'd');
}
