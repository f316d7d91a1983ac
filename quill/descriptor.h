// The owner of one file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace lumo {

// Releases by close(). Move-only. One thread.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : m_fd(fd) {}
  Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      reset();
      m_fd = std::exchange(other.m_fd, -1);
    }
    return *this;
  }
  ~Descriptor() { reset(); }

  int get() const { return m_fd; }
  explicit operator bool() const { return m_fd >= 0; }
  void reset() {
    if (m_fd >= 0) close(std::exchange(m_fd, -1));
  }

 private:
  int m_fd = -1;
};

}  // namespace lumo
