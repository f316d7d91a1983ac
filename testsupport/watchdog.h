// Ends a test of many threads that stand still.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

namespace testsupport {

// What the threads are at; ends the process with words when nothing is done for too long.
class Watchdog {
 public:
  explicit Watchdog(std::size_t threads) : m_doing(threads), m_thread([this] { watch(); }) {
    for (auto& one : m_doing) one = "not begun";
  }
  ~Watchdog() {
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_over = true;
    }
    m_changed.notify_all();
    m_thread.join();
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  void tell(std::size_t thread, const char* what) {
    m_doing[thread] = what;
    ++m_steps;
  }
  long steps() const { return m_steps; }

 private:
  static constexpr std::chrono::seconds PATIENCE{60};

  void watch() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (long seen = -1; seen != m_steps;) {
      seen = m_steps;
      // By the wall clock: ThreadSanitizer knows of no other wait.
      if (m_changed.wait_until(lock, std::chrono::system_clock::now() + PATIENCE, [this] { return m_over; })) return;
    }
    std::fprintf(stderr, "Nothing was done for %d seconds; the threads are at:\n", static_cast<int>(PATIENCE.count()));
    for (std::size_t i = 0; i < m_doing.size(); ++i) std::fprintf(stderr, "  %zu: %s\n", i, m_doing[i].load());
    std::abort();
  }

  std::vector<std::atomic<const char*>> m_doing;
  std::atomic<long> m_steps{0};
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_over = false;
  std::thread m_thread;
};

}  // namespace testsupport
