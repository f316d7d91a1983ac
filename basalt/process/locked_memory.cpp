#include <sodium.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <atomic>
#include <cstddef>
#include <new>

#include "base/include/logger.h"
#include "base/include/shredder.h"

namespace {

// libsodium puts an allocation at the end of its pages, so its size decides its alignment.
std::size_t alignedSize(std::size_t size) {
  constexpr std::size_t alignment = alignof(std::max_align_t);
  if (size > SIZE_MAX - alignment) throw std::bad_alloc();
  return size == 0 ? alignment : (size + alignment - 1) / alignment * alignment;
}

bool raiseLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_MEMLOCK, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return false;
  limit.rlim_cur = limit.rlim_max;
  return setrlimit(RLIMIT_MEMLOCK, &limit) == 0;
}

// libsodium locks what it allocates but keeps to itself when the system refuses; locking the same pages once more does
// no harm and tells.
void requireLocked(void* memory, std::size_t size) {
  if (mlock(memory, size) == 0) return;
  if (raiseLimit() && mlock(memory, size) == 0) return;
  static std::atomic<bool> told{false};
  if (told.exchange(true)) return;
  LUMO_LOG(getLogger("base.memory", false), lumo::level::Warn,
           "No more memory can be locked (ulimit -l): secrets of this process may reach the swap space");
}

}  // namespace

void* mlock_malloc(std::size_t size) {
  static const bool ready = sodium_init() >= 0;
  if (!ready) throw std::bad_alloc();
  const std::size_t allocated = alignedSize(size);
  void* memory = sodium_malloc(allocated);
  if (memory == nullptr) throw std::bad_alloc();
  try {
    requireLocked(memory, allocated);
  } catch (...) {
    // A warning that cannot be given is no reason to go without the memory.
  }
  return memory;
}

void mlock_free(void* memory) noexcept { sodium_free(memory); }
