#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/include/shredder.h"
#include "testsupport/log_capture.h"
#include "testsupport/process_memory.h"
#include "testsupport/sanitizers.h"

#ifdef FERRO_SANITIZED
// The sanitizers turn mlock into nothing and lay out memory of their own.
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

namespace {

// The bytes that the next munlock is asked about, and what it saw there.
std::atomic<const char*> watched{nullptr};
std::atomic<std::size_t> watchedSize{0};
std::atomic<bool> unlocked{false};
std::atomic<bool> wasWiped{false};

}  // namespace

#ifndef FERRO_SANITIZED
// Takes the place of the C library's: the last moment at which a secret's memory can be looked at before it is gone.
extern "C" int munlock(const void* start, std::size_t size) noexcept {
  const char* bytes = watched;
  const char* first = static_cast<const char*>(start);
  if (bytes != nullptr && bytes >= first && bytes + watchedSize <= first + size) {
    unlocked = true;
    bool zero = true;
    for (std::size_t i = 0; i < watchedSize; ++i) zero = zero && bytes[i] == 0;
    wasWiped = zero;
  }
  return static_cast<int>(syscall(SYS_munlock, start, size));
}
#endif

namespace {

using testsupport::Mapping;

Mapping mappingOf(const void* address) {
  const auto at = reinterpret_cast<std::uintptr_t>(address);
  for (const auto& mapping : testsupport::mappings()) {
    if (at >= mapping.start && at < mapping.end) return mapping;
  }
  return {};
}

TEST(LockedMemory, IsLockedAndLeftOutOfCoreDumps) {
  if (sanitized) GTEST_SKIP() << "no mlock under a sanitizer";
  const lumo::Shredder2 secret("secret");
  const Mapping mapping = mappingOf(secret.c_str());
  EXPECT_NE(mapping.flags.find(" lo "), std::string::npos) << mapping.flags;
  EXPECT_NE(mapping.flags.find(" dd "), std::string::npos) << mapping.flags;
  EXPECT_GE(mapping.lockedKb, 4U);
}

TEST(LockedMemory, IsGuardedOnBothSides) {
  if (sanitized) GTEST_SKIP() << "maps of a sanitizer";
  void* memory = mlock_malloc(100);
  const Mapping mine = mappingOf(memory);
  EXPECT_EQ(mappingOf(reinterpret_cast<void*>(mine.end)).access, "---p");
  EXPECT_EQ(mine.access, "rw-p");
  mlock_free(memory);
}

TEST(LockedMemory, IsAlignedForEveryType) {
  for (std::size_t size = 0; size < 70; ++size) {
    void* memory = mlock_malloc(size);
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % alignof(std::max_align_t), 0U) << size;
    std::memset(memory, 1, size);
    mlock_free(memory);
  }
}

TEST(LockedMemory, NullCanBeFreed) { mlock_free(nullptr); }

TEST(LockedMemory, TooMuchIsBadAlloc) {
  EXPECT_THROW(mlock_malloc(SIZE_MAX), std::bad_alloc);
  EXPECT_THROW(mlock_malloc(SIZE_MAX - 15), std::bad_alloc);
  EXPECT_THROW(mlock_malloc(SIZE_MAX / 2), std::bad_alloc);
}

TEST(LockedMemory, SecretIsWipedBeforeItsMemoryIsUnlocked) {
  if (sanitized) GTEST_SKIP() << "munlock is the sanitizer's";
  auto secret = std::make_unique<lumo::Shredder2>("a secret that must not stay");
  auto copy = std::make_unique<lumo::Shredder2>(*secret);
  watchedSize = secret->size();
  watched = secret->c_str();
  unlocked = false;
  secret.reset();
  EXPECT_FALSE(unlocked) << "the copy still uses it";
  EXPECT_STREQ(copy->c_str(), "a secret that must not stay");
  copy.reset();
  EXPECT_TRUE(unlocked);
  EXPECT_TRUE(wasWiped);
  watched = nullptr;
}

TEST(LockedMemory, AllocationIsWipedWhenItIsGivenBack) {
  if (sanitized) GTEST_SKIP() << "munlock is the sanitizer's";
  void* memory = mlock_malloc(32);
  std::memset(memory, 's', 32);
  watchedSize = 32;
  watched = static_cast<const char*>(memory);
  unlocked = false;
  mlock_free(memory);
  EXPECT_TRUE(unlocked);
  EXPECT_TRUE(wasWiped);
  watched = nullptr;
}

TEST(LockedMemory, SecretStandsInLockedMemoryAloneAndNowhereAfterwards) {
  if (sanitized) GTEST_SKIP() << "the memory of a sanitizer is too large to search; the build without one runs this";
  const auto places = [] { return testsupport::placesOf(testsupport::RARE_LENGTH, &testsupport::rareCharacter); };
  {
    lumo::Shredder2 secret;
    for (unsigned i = 0; i < testsupport::RARE_LENGTH; ++i) secret += testsupport::rareCharacter(i);
    lumo::Shredder2 copy(secret);
    copy += "and more";
    lumo::Shredder2 moved(std::move(secret));
    const auto found = places();
    EXPECT_EQ(found.size(), 2U);
    for (const Mapping& mapping : found) EXPECT_NE(mapping.flags.find(" lo "), std::string::npos) << mapping.flags;
  }
  EXPECT_EQ(places().size(), 0U);
}

// Runs in a process of its own without the right to lock more than its limits allow; 0 when `work` is content.
int withLimits(rlim_t soft, rlim_t hard, const std::function<bool()>& work) {
  const pid_t pid = fork();
  if (pid == 0) {
    const rlimit limit{soft, hard};
    if (setrlimit(RLIMIT_MEMLOCK, &limit) != 0) _exit(2);
    if (geteuid() == 0 && setuid(65534) != 0) _exit(3);
    _exit(work() ? 0 : 1);
  }
  int status = -1;
  waitpid(pid, &status, 0);
  return status;
}

bool makesSecrets() {
  std::vector<lumo::Shredder2> secrets;
  for (int i = 0; i < 20; ++i) secrets.emplace_back("secret");
  return std::string(secrets.back().c_str()) == "secret";
}

TEST(LockedMemory, NoLockableMemoryIsToldOnceAndTheRunGoesOn) {
  if (sanitized) GTEST_SKIP() << "no mlock under a sanitizer";
  const testsupport::LogCapture log;
  EXPECT_EQ(withLimits(0, 0, makesSecrets), 0);
  EXPECT_EQ(log.texts(), (std::vector<std::string>{
                             "WARN base.memory: No more memory can be locked (ulimit -l): secrets of this process may "
                             "reach the swap space"}));
}

TEST(LockedMemory, SoftLimitIsRaised) {
  if (sanitized) GTEST_SKIP() << "no mlock under a sanitizer";
  const testsupport::LogCapture log;
  EXPECT_EQ(withLimits(4096, 1U << 20U,
                       [] {
                         const lumo::Shredder2 first("secret");
                         const lumo::Shredder2 second("secret");
                         const lumo::Shredder2 third("secret");
                         return mappingOf(third.c_str()).lockedKb >= 4;
                       }),
            0);
  EXPECT_TRUE(log.texts().empty());
}

}  // namespace
