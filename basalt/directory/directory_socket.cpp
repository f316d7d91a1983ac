#include "basalt/directory/directory_socket.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <system_error>
#include <utility>

namespace lumo {
namespace {

// Of one server, to which a datagram is sent.
constexpr std::size_t MOST_ADDRESSES = 4;

// Owns the result of getaddrinfo: freeaddrinfo.
using Addresses = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

Addresses resolve(const DirectoryServer& server, int type, std::string& failure) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = type;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int rc = getaddrinfo(server.host.c_str(), std::to_string(server.port).c_str(), &hints, &found);
  if (rc != 0) failure = gai_strerror(rc);
  return {rc == 0 ? found : nullptr, &freeaddrinfo};
}

std::string words(int error) { return std::generic_category().message(error); }

// 0, or the errno of the failure.
int connectOne(int fd, const addrinfo& address, SteadyTime deadline) {
  if (std::chrono::steady_clock::now() >= deadline) return ETIMEDOUT;
  if (connect(fd, address.ai_addr, address.ai_addrlen) == 0) return 0;
  if (errno != EINPROGRESS && errno != EINTR) return errno;
  for (;;) {
    pollfd waiting{fd, POLLOUT, 0};
    const int ready = poll(&waiting, 1, pollTime(deadline));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) return errno;
    if (ready == 0) return ETIMEDOUT;
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
  }
}

}  // namespace

int pollTime(SteadyTime deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

Connected connectTcp(const DirectoryServer& server, std::chrono::milliseconds limit) {
  Connected result;
  const Addresses addresses = resolve(server, SOCK_STREAM, result.failure);
  const SteadyTime end = std::chrono::steady_clock::now() + limit;
  int left = 0;
  for (const addrinfo* one = addresses.get(); one != nullptr; one = one->ai_next) ++left;
  for (const addrinfo* one = addresses.get(); one != nullptr; one = one->ai_next, --left) {
    FileDescriptor fd(socket(one->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, one->ai_protocol));
    const SteadyTime now = std::chrono::steady_clock::now();
    const int error = fd ? connectOne(fd.get(), *one, now + (end - now) / left) : errno;
    if (error == 0) return {std::move(fd), {}};
    result.failure = error == ETIMEDOUT ? "no answer in time" : words(error);
  }
  return result;
}

std::vector<FileDescriptor> connectUdp(const DirectoryServer& server) {
  std::string failure;
  std::vector<FileDescriptor> sockets;
  const Addresses addresses = resolve(server, SOCK_DGRAM, failure);
  for (const addrinfo* one = addresses.get(); one != nullptr && sockets.size() < MOST_ADDRESSES; one = one->ai_next) {
    FileDescriptor fd(socket(one->ai_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, one->ai_protocol));
    if (fd && connect(fd.get(), one->ai_addr, one->ai_addrlen) == 0) sockets.push_back(std::move(fd));
  }
  return sockets;
}

}  // namespace lumo
