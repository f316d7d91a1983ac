#include "base/include/shredder.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using lumo::Shredder2;

namespace {

TEST(Shredder2, StartsEmpty) {
  const Shredder2 none;
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(none.size(), 0U);
  EXPECT_STREQ(none.c_str(), "");
  EXPECT_FALSE(none.shared());
}

TEST(Shredder2, KeepsAnyBytes) {
  const Shredder2 secret(std::string("a\0b", 3));
  EXPECT_EQ(secret.size(), 3U);
  EXPECT_EQ(std::string(secret.data(), secret.size()), std::string("a\0b", 3));
  EXPECT_EQ(secret.c_str()[3], '\0');
  EXPECT_EQ(secret[2], 'b');
}

TEST(Shredder2, CopySharesAndKeepsItsTextWhenTheOtherGoes) {
  auto first = std::make_unique<Shredder2>("secret");
  const Shredder2 copy(*first);
  EXPECT_EQ(copy.c_str(), first->c_str());
  EXPECT_TRUE(copy.shared());
  first.reset();
  EXPECT_FALSE(copy.shared());
  EXPECT_STREQ(copy.c_str(), "secret");
}

TEST(Shredder2, WritingLeavesTheCopyAlone) {
  Shredder2 first("secret");
  const Shredder2 copy(first);
  first += "more";
  EXPECT_STREQ(first.c_str(), "secretmore");
  EXPECT_STREQ(copy.c_str(), "secret");
  EXPECT_FALSE(copy.shared());
}

// Also where its buffer has room for more, so that nothing but the other holder asks for a new one.
TEST(Shredder2, AppendingWhereThereIsRoomLeavesTheCopyAlone) {
  Shredder2 first("secret");
  first += '1';
  const Shredder2 copy(first);
  first += '2';
  EXPECT_STREQ(first.c_str(), "secret12");
  EXPECT_STREQ(copy.c_str(), "secret1");
  EXPECT_EQ(copy.size(), 7U);
  EXPECT_FALSE(copy.shared());
}

TEST(Shredder2, AssignmentOfASoleHolderToItselfKeepsTheText) {
  Shredder2 only("secret");
  Shredder2& same = only;
  const char* const before = only.c_str();
  only = same;
  EXPECT_EQ(only.c_str(), before);
  EXPECT_STREQ(only.c_str(), "secret");
  only = std::move(same);
  EXPECT_STREQ(only.c_str(), "secret");
  EXPECT_FALSE(only.shared());
}

TEST(Shredder2, ClearLeavesTheCopyAlone) {
  Shredder2 first("secret");
  const Shredder2 copy(first);
  first.clear();
  EXPECT_TRUE(first.empty());
  EXPECT_STREQ(copy.c_str(), "secret");
}

TEST(Shredder2, AssignmentAlsoToItself) {
  Shredder2 first("one");
  const Shredder2 second("two");
  first = second;
  EXPECT_STREQ(first.c_str(), "two");
  const Shredder2& same = first;
  first = same;
  EXPECT_STREQ(first.c_str(), "two");
  Shredder2 third = std::move(first);
  EXPECT_STREQ(third.c_str(), "two");
  first = std::move(third);
  EXPECT_STREQ(first.c_str(), "two");
}

TEST(Shredder2, AppendGrowsCharacterByCharacter) {
  Shredder2 secret;
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    const char c = static_cast<char>('a' + i % 26);
    secret += c;
    expected += c;
  }
  EXPECT_EQ(std::string(secret.c_str()), expected);
}

TEST(Shredder2, AppendOfItsOwnText) {
  Shredder2 secret("0123456789");
  for (int i = 0; i < 5; ++i) secret += secret;
  EXPECT_EQ(secret.size(), 320U);
  secret.append(secret.data() + 1, 3);
  EXPECT_EQ(std::string(secret.c_str()).substr(310), "0123456789123");
}

TEST(Shredder2, NullPointerIsALogicError) {
  const char* null = nullptr;
  EXPECT_THROW(Shredder2{null}, std::logic_error);
  EXPECT_THROW((Shredder2{null, 1}), std::logic_error);
  EXPECT_TRUE((Shredder2{null, 0}).empty());
  Shredder2 secret("a");
  EXPECT_THROW(secret += null, std::logic_error);
  EXPECT_THROW(secret.append(null, 2), std::logic_error);
  EXPECT_STREQ(secret.c_str(), "a");
}

TEST(Shredder2, TooLongIsALengthError) {
  EXPECT_THROW((Shredder2{"a", Shredder2::max_size() + 1}), std::length_error);
  Shredder2 secret("a");
  EXPECT_THROW(secret.append("b", Shredder2::max_size()), std::length_error);
  EXPECT_STREQ(secret.c_str(), "a");
}

TEST(Shredder2, LongestThatFitsNowhereIsOutOfMemory) {
  EXPECT_THROW((Shredder2{"a", Shredder2::max_size()}), std::bad_alloc);
}

TEST(Shredder2, ComparesBytes) {
  EXPECT_TRUE(Shredder2("abc") == Shredder2("abc"));
  EXPECT_TRUE(Shredder2("abc") != Shredder2("abd"));
  EXPECT_TRUE(Shredder2("abc") != Shredder2("ab"));
  EXPECT_TRUE(Shredder2() == Shredder2(""));
  EXPECT_TRUE(Shredder2(std::string("a\0b", 3)) != Shredder2(std::string("a\0c", 3)));
}

TEST(Shredder2, CopiesLiveOnManyThreads) {
  const Shredder2 original("the secret of all threads");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([copy = original]() mutable {
      for (int i = 0; i < 500; ++i) {
        Shredder2 mine(copy);
        ASSERT_STREQ(mine.c_str(), "the secret of all threads");
        if (i % 50 == 0) {
          mine += '!';
          ASSERT_STREQ(mine.c_str(), "the secret of all threads!");
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_FALSE(original.shared());
  EXPECT_STREQ(original.c_str(), "the secret of all threads");
}

TEST(Shredder, TakesItsOwnCopy) {
  const Shredder2 text("secret");
  const lumo::Shredder old(text);
  EXPECT_FALSE(text.shared());
  EXPECT_STREQ(old.c_str(), "secret");
  EXPECT_EQ(old.size(), 6U);
}

TEST(MlockAlloc, RefusesACountThatOverflows) {
  lumo::MlockAlloc<long> allocator;
  EXPECT_THROW(allocator.allocate(std::numeric_limits<std::size_t>::max() / 4), std::bad_alloc);
}

}  // namespace
