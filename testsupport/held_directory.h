// A directory that takes its time over another one's answers.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "testsupport/memory_directory.h"

namespace testsupport {

// Gives no answer from `hold` until `letGo`.
class HeldDirectory : public DirectoryConnector {
 public:
  explicit HeldDirectory(MemoryDirectory& inner) : m_inner(inner) {}

  void hold() { set(true); }
  void letGo() { set(false); }
  // Does somebody wait for an answer?
  bool awaitQuestion() {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_until(lock, std::chrono::system_clock::now() + std::chrono::seconds(20),
                                [&] { return m_waiting > 0; });
  }

  std::unique_ptr<DirectoryConnection> open(const Target& target) override {
    return std::make_unique<Connection>(*this, m_inner.open(target));
  }
  std::string site(const std::string& domain) override {
    pass();
    return m_inner.site(domain);
  }

 private:
  class Connection : public DirectoryConnection {
   public:
    Connection(HeldDirectory& directory, std::unique_ptr<DirectoryConnection> inner)
        : m_directory(directory), m_inner(std::move(inner)) {}
    std::vector<ADObjectPtr> search(const DirectorySearch& what) override {
      m_directory.pass();
      return m_inner->search(what);
    }
    ADObjectPtr rootDse() override { return m_inner->rootDse(); }

   private:
    HeldDirectory& m_directory;
    const std::unique_ptr<DirectoryConnection> m_inner;
  };

  void set(bool held) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_held = held;
    m_changed.notify_all();
  }
  void pass() {
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_waiting;
    m_changed.notify_all();
    m_changed.wait(lock, [&] { return !m_held; });
    --m_waiting;
  }

  MemoryDirectory& m_inner;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_held = false;
  int m_waiting = 0;
};

}  // namespace testsupport
