// A file descriptor with its owner, and the faults of system calls.
#pragma once

#include <unistd.h>

#include <chrono>
#include <string>
#include <utility>

namespace lumo {

// Owns a descriptor: close.
class FileDescriptor {
 public:
  FileDescriptor() noexcept = default;
  explicit FileDescriptor(int fd) noexcept : m_fd(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
  }
  ~FileDescriptor() {
    if (m_fd >= 0) close(m_fd);
  }

  int get() const noexcept { return m_fd; }
  explicit operator bool() const noexcept { return m_fd >= 0; }
  int release() noexcept { return std::exchange(m_fd, -1); }

 private:
  int m_fd = -1;
};

// Throws lumo::SystemException "DOING PATH: REASON" with `error` (an errno) as its code; DOING is e.g. "Cannot read".
[[noreturn]] void throwSystem(const char* doing, const std::string& path, int error);

// Opens a regular file without following a symbolic link at its end and without waiting on a pipe; `flags` are those of
// open, close-on-exec is added. Throws SystemException "DOING PATH: REASON", e.g. "Cannot read /etc/x: it is a symbolic
// link". With `missingIsFine` a file that does not exist gives an empty descriptor.
FileDescriptor openRegular(const std::string& path, int flags, unsigned mode, const char* doing, bool missingIsFine);

// The folder part of a path without its final slash: "/" for a file of the root, "." where there is none.
std::string folderOf(const std::string& path);
// The last part of a path.
std::string nameOf(const std::string& path);

// A lock among processes and among threads (flock) on a file that is made with mode 0600 when it is missing and never
// removed. Released with the object.
class FileLock {
 public:
  // Throws SystemException: "Cannot lock PATH: REASON", e.g. "Cannot lock /etc/.x.lock: another process holds it; try
  // again when it is done" once the patience is at its end.
  explicit FileLock(const std::string& path, std::chrono::milliseconds patience = std::chrono::seconds(10));

 private:
  FileDescriptor m_file;
};

}  // namespace lumo
