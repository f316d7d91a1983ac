// The other end of a session or a server, under the test's own hands: bytes, not messages.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "basalt/files/posix_file.h"
#include "quill/rpc_frame.h"
#include "testsupport/temp_folder.h"

namespace raw {

inline sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

inline lumo::FileDescriptor listenAt(const std::string& path, int backlog = 16, int type = SOCK_STREAM) {
  lumo::FileDescriptor socket(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
  const sockaddr_un address = addressOf(path);
  EXPECT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_TRUE(type != SOCK_STREAM || listen(socket.get(), backlog) == 0);
  return socket;
}

inline lumo::FileDescriptor connectTo(const std::string& path, int flags = 0) {
  lumo::FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
  const sockaddr_un address = addressOf(path);
  if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    socket = lumo::FileDescriptor();
  return socket;
}

inline void write(const lumo::FileDescriptor& fd, const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = send(fd.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return;
    sent += static_cast<std::size_t>(n);
  }
}

// The next frame's content, not a byte beyond it; "END" at the end of the stream.
inline std::string readFrame(const lumo::FileDescriptor& fd) {
  unsigned char header[4];
  if (recv(fd.get(), header, sizeof header, MSG_WAITALL) != sizeof header) return "END";
  std::string content(
      std::size_t{header[0]} << 24U | std::size_t{header[1]} << 16U | std::size_t{header[2]} << 8U | header[3], '\0');
  const ssize_t n = recv(fd.get(), content.data(), content.size(), MSG_WAITALL);
  return n == static_cast<ssize_t>(content.size()) ? content : "END";
}

// Waits until the peer has closed.
inline void awaitEnd(const lumo::FileDescriptor& fd) {
  char buffer[4096];
  while (recv(fd.get(), buffer, sizeof buffer, 0) > 0) {
  }
}

inline std::string reply(const std::string& members) { return lumo::rpcFrame(R"({"jsonrpc":"2.0",)" + members + "}"); }

// Serves one connection with a script on a thread of its own.
class Peer {
 public:
  explicit Peer(std::function<void(lumo::FileDescriptor&)> script)
      : m_listener(listenAt(path())), m_thread([this, talk = std::move(script)] {
          lumo::FileDescriptor client(accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
          talk(client);
        }) {}
  ~Peer() { m_thread.join(); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  std::string path() const { return m_folder.file("agent"); }

 private:
  testsupport::TempFolder m_folder;
  lumo::FileDescriptor m_listener;
  std::thread m_thread;
};

// Entries of a folder of /proc/self: open descriptors ("fd"), threads ("task").
inline int countOf(const char* what) {
  int count = 0;
  DIR* folder = opendir((std::string("/proc/self/") + what).c_str());
  while (readdir(folder) != nullptr) ++count;
  closedir(folder);
  return count;
}

// A sanitizer starts a thread of its own along with the first of ours: once this returns, it counts.
inline void haveHadAThread() {
  pid_t id = 0;
  std::thread([&id] { id = gettid(); }).join();
  while (access(("/proc/self/task/" + std::to_string(id)).c_str(), F_OK) == 0) std::this_thread::yield();
}

// The threads of this process once there are no more than `expected`, or after a minute: the kernel lists a thread
// for a moment longer than a join waits for it.
inline int threadsDownTo(int expected) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  int count = countOf("task");
  while (count > expected && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
    count = countOf("task");
  }
  return count;
}

}  // namespace raw
