#include "quill/rpc_channel.h"

#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "base/include/exceptions.h"

namespace lumo {
namespace {

// Rounded up, so that a wait never ends a moment before its deadline and spins.
int pollTimeout(RpcChannel::Deadline deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

bool mayRetry(int error) { return error == EINTR || error == EAGAIN || error == EWOULDBLOCK; }

}  // namespace

RpcChannel::RpcChannel(FileDescriptor socket, int stopFd) : m_socket(std::move(socket)), m_stopFd(stopFd) {}

RpcChannel::Wait RpcChannel::wait(short events, Deadline deadline) const {
  for (;;) {
    pollfd waiting[2] = {{m_socket.get(), events, 0}, {m_stopFd, POLLIN, 0}};
    const int ready = poll(waiting, 2, pollTimeout(deadline));
    if (ready < 0 && errno != EINTR) LUMO_THROW(IPCException, -1, "Cannot wait for the RPC peer: %s", strerror(errno));
    if (ready > 0 && waiting[1].revents != 0) return Wait::Stopped;
    if (ready > 0) return Wait::Ready;
    if (ready == 0) return Wait::TimedOut;
  }
}

void RpcChannel::send(const std::string& content, Deadline deadline) {
  const std::string frame = rpcFrame(content);
  std::size_t sent = 0;
  while (sent < frame.size()) {
    const ssize_t n = ::send(m_socket.get(), frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n >= 0) {
      sent += static_cast<std::size_t>(n);
      continue;
    }
    if (!mayRetry(errno)) LUMO_THROW(IPCException, errno, "Cannot send to the RPC peer: %s", strerror(errno));
    switch (wait(POLLOUT, deadline)) {
      case Wait::Ready:
        break;
      case Wait::TimedOut:
        LUMO_THROW(IPCException, -1, "The RPC peer does not take the message in time");
      case Wait::Stopped:
        LUMO_THROW(IPCException, -1, "Stopped while sending to the RPC peer");
    }
  }
}

// False at the end of the stream.
bool RpcChannel::readSome() {
  char buffer[16384];
  const ssize_t n = recv(m_socket.get(), buffer, sizeof buffer, MSG_DONTWAIT);
  if (n > 0) {
    m_reader.feed(buffer, static_cast<std::size_t>(n));
    explicit_bzero(buffer, static_cast<std::size_t>(n));
    return true;
  }
  if (n < 0 && mayRetry(errno)) return true;
  // A peer that closed with our bytes unread resets the connection: for us that is the end as well.
  if (n < 0 && errno != ECONNRESET) LUMO_THROW(IPCException, -1, "Cannot read from the RPC peer: %s", strerror(errno));
  return false;
}

bool RpcChannel::peerClosed() const {
  char byte = 0;
  const ssize_t n = recv(m_socket.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return n == 0 || (n < 0 && !mayRetry(errno));
}

void RpcChannel::shut() const { shutdown(m_socket.get(), SHUT_RDWR); }

std::optional<std::string> RpcChannel::receive(Span idle, Span frame) try {
  bool begun = !m_reader.empty();
  Deadline deadline = std::chrono::steady_clock::now() + (begun ? frame : idle);
  for (;;) {
    if (auto content = m_reader.next()) return content;
    if (!begun && !m_reader.empty()) {
      begun = true;
      deadline = std::min(deadline, std::chrono::steady_clock::now() + frame);
    }
    const Wait outcome = wait(POLLIN, deadline);
    if (outcome == Wait::TimedOut) LUMO_THROW(IPCException, -1, "The RPC peer does not answer in time");
    if (outcome == Wait::Ready && readSome()) continue;
    if (!begun) return std::nullopt;
    LUMO_THROW(IPCException, -1, "The RPC connection ended within a message");
  }
} catch (const BadDataException& failure) {
  LUMO_THROW(IPCException, -1, "%s", failure.what());
}

}  // namespace lumo
