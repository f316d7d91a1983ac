// The lock type of the system and its scoped holder.
#pragma once

#include <mutex>

namespace lumo {

// Recursive: an operation that holds a lock may call another that takes it.
class Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() { m_mutex.lock(); }
  void unlock() { m_mutex.unlock(); }

 private:
  std::recursive_mutex m_mutex;
};

// Holds a Mutex from construction to destruction; doLock and unLock open and close a gap in between.
// One thread owns a Lock.
class Lock {
 public:
  explicit Lock(Mutex& mutex) : m_mutex(mutex) { doLock(); }
  ~Lock() { unLock(); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  void doLock() {
    if (!m_held) {
      m_mutex.lock();
      m_held = true;
    }
  }
  void unLock() {
    if (m_held) {
      m_held = false;
      m_mutex.unlock();
    }
  }

 private:
  Mutex& m_mutex;
  bool m_held = false;
};

}  // namespace lumo
