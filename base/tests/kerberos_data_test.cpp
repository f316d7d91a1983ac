#include "base/include/kerberos_data.h"

#include <gtest/gtest.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdint>
#include <new>
#include <string>

namespace {

TEST(KerberosData, CopiesWhatItIsGiven) {
  std::string bytes("a\0b", 3);
  KerberosData data;
  data.assign(bytes.data(), bytes.size(), true);
  bytes.assign(3, '#');
  ASSERT_EQ(data.size(), 3U);
  EXPECT_EQ(std::string(data.bytes(), data.size()), std::string("a\0b", 3));
}

TEST(KerberosData, ReleaseLeavesNullAndZero) {
  KerberosData data;
  data.assign("secret", 6, true);
  data.release();
  EXPECT_EQ(data.bytes(), nullptr);
  EXPECT_EQ(data.size(), 0U);
  data.release();
  EXPECT_EQ(data.bytes(), nullptr);
}

// What stands there now, also where nothing is allocated any more.
std::string bytesAt(const void* address, std::size_t size) {
  std::string bytes(size, '?');
  const iovec here{bytes.data(), size};
  const iovec there{const_cast<void*>(address), size};
  EXPECT_EQ(process_vm_readv(getpid(), &here, 1, &there, 1, 0), static_cast<ssize_t>(size));
  return bytes;
}

TEST(KerberosData, WipesItsBytesBeforeTheyAreFreedWhereItIsToldTo) {
  // The first bytes of what was freed are the allocator's.
  constexpr std::size_t ALLOCATORS = 16;
  const std::string secret(64, 's');
  const std::size_t rest = secret.size() - ALLOCATORS;
  KerberosData data;
  data.assign(secret.data(), secret.size(), true);
  const char* const place = data.bytes() + ALLOCATORS;
  EXPECT_EQ(bytesAt(place, rest), std::string(rest, 's'));
  data.release();
  EXPECT_EQ(bytesAt(place, rest), std::string(rest, '\0'));
}

TEST(KerberosData, WipesItsBytesWhenItEnds) {
  const std::string secret(64, 't');
  const char* place = nullptr;
  {
    KerberosData data;
    data.assign(secret.data(), secret.size(), true);
    place = data.bytes() + 16;
  }
  EXPECT_EQ(bytesAt(place, 48), std::string(48, '\0'));
}

TEST(KerberosData, LeavesAlonePartsOfSomebodyElse) {
  char bytes[] = "secret";
  KerberosData data;
  data.borrow(bytes, 6);
  EXPECT_EQ(data.bytes(), bytes);
  EXPECT_EQ(data.size(), 6U);
  data.release();
  EXPECT_EQ(data.bytes(), nullptr);
  EXPECT_EQ(data.size(), 0U);
  EXPECT_STREQ(bytes, "secret");
}

TEST(KerberosData, OwnsAgainAfterBorrowing) {
  char bytes[] = "other";
  KerberosData data;
  data.borrow(bytes, 5);
  data.assign("mine", 4, false);
  EXPECT_NE(data.bytes(), bytes);
  EXPECT_EQ(std::string(data.bytes(), data.size()), "mine");
}

TEST(KerberosData, EmptyContentIsNull) {
  KerberosData data;
  data.assign("x", 1, true);
  data.assign("", 0, true);
  EXPECT_EQ(data.bytes(), nullptr);
  EXPECT_EQ(data.size(), 0U);
}

TEST(KerberosData, MoreThanItsLengthCanSayIsRefusedAndChangesNothing) {
  KerberosData data;
  data.assign("old", 3, true);
  EXPECT_THROW(data.assign("new", std::size_t{UINT32_MAX} + 1, true), std::bad_alloc);
  EXPECT_EQ(std::string(data.bytes(), data.size()), "old");
}

TEST(KerberosData, TakesItsOwnBytes) {
  KerberosData data;
  data.assign("secret", 6, true);
  data.assign(data.bytes() + 3, 3, true);
  EXPECT_EQ(std::string(data.bytes(), data.size()), "ret");
}

}  // namespace
