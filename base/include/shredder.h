// Strings for secrets: in locked memory, wiped when the last holder goes.
#pragma once

#include <cstddef>
#include <cstring>
#include <limits>
#include <new>
#include <string>

// Locked, guarded memory that never goes to swap, is left out of core dumps and is wiped when it is given back. Aligned
// for every type. Throws std::bad_alloc when there is no memory; never null, not for size 0 either. Where the system
// refuses to lock (RLIMIT_MEMLOCK; root is not bound by it), the soft limit is raised to the hard one; if that is not
// enough, the run goes on with memory that is guarded and wiped but may reach swap, and one warning in the log says so.
// Any thread. Defined by the platform library.
void* mlock_malloc(std::size_t size);
// Gives back what mlock_malloc gave; null is fine.
void mlock_free(void* memory) noexcept;

namespace lumo {

template <class T>
struct MlockAlloc {
  using value_type = T;
  MlockAlloc() noexcept = default;
  template <class U>
  MlockAlloc(const MlockAlloc<U>&) noexcept {}
  T* allocate(std::size_t n) {
    if (n > std::numeric_limits<std::size_t>::max() / sizeof(T)) throw std::bad_alloc();
    return static_cast<T*>(mlock_malloc(n * sizeof(T)));
  }
  void deallocate(T* p, std::size_t) noexcept { mlock_free(p); }
  template <class U>
  bool operator==(const MlockAlloc<U>&) const noexcept {
    return true;
  }
  template <class U>
  bool operator!=(const MlockAlloc<U>&) const noexcept {
    return false;
  }
};

// A copy-on-write string whose every byte lies in locked memory: no small-string buffer. Copies share one buffer with
// an atomic count; a buffer is wiped and freed when its last holder lets go, never while another copy uses it. One
// object belongs to one thread at a time; copies of it may live on others.
class Shredder2 {
 public:
  Shredder2() noexcept = default;
  // Throws std::logic_error for a null pointer, std::length_error past max_size().
  explicit Shredder2(const char* text);
  Shredder2(const char* data, std::size_t length);
  explicit Shredder2(const std::string& text) : Shredder2(text.data(), text.size()) {}
  Shredder2(const Shredder2& other) noexcept;
  Shredder2(Shredder2&& other) noexcept : m_rep(other.m_rep) { other.m_rep = nullptr; }
  Shredder2& operator=(const Shredder2& other) noexcept;
  Shredder2& operator=(Shredder2&& other) noexcept;
  ~Shredder2();

  bool empty() const noexcept { return size() == 0; }
  std::size_t size() const noexcept;
  static std::size_t max_size() noexcept;
  // Zero-terminated; valid until this object changes.
  const char* c_str() const noexcept;
  const char* data() const noexcept { return c_str(); }
  char operator[](std::size_t index) const noexcept { return c_str()[index]; }
  // Does another object share this buffer?
  bool shared() const noexcept;

  // Throw std::logic_error for a null pointer, std::length_error past max_size(); the text is then unchanged. `data`
  // may be part of this text.
  Shredder2& append(const char* data, std::size_t length);
  Shredder2& operator+=(const char* text);
  Shredder2& operator+=(const Shredder2& other) { return append(other.data(), other.size()); }
  Shredder2& operator+=(char c) { return append(&c, 1); }
  // Lets go of the text, wiping it when nobody else holds it.
  void clear() noexcept;

  bool operator==(const Shredder2& other) const noexcept;
  bool operator!=(const Shredder2& other) const noexcept { return !(*this == other); }

 private:
  struct Rep;  // count, length, capacity; the characters follow
  static Rep* allocate(std::size_t capacity);
  static void release(Rep* rep) noexcept;
  Rep* m_rep = nullptr;  // null is the shared empty string
};

// The older sibling: one owner, no sharing. It is what getCredentials takes.
class Shredder {
 public:
  Shredder() = default;
  explicit Shredder(const Shredder2& text) : m_text(text.data(), text.size()) {}
  const char* c_str() const noexcept { return m_text.c_str(); }
  std::size_t size() const noexcept { return m_text.size(); }
  bool empty() const noexcept { return m_text.empty(); }

 private:
  Shredder2 m_text;
};

}  // namespace lumo
