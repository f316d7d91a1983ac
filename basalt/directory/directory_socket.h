// Sockets to directory servers.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "basalt/files/posix_file.h"

namespace lumo {

// One server, by name or address.
struct DirectoryServer {
  std::string host;
  std::uint16_t port = 0;
};

using SteadyTime = std::chrono::steady_clock::time_point;

// A connected stream socket that never blocks, or the reason in words why there is none.
struct Connected {
  FileDescriptor socket;
  std::string failure;
};

// Milliseconds until the deadline for poll(), rounded up, so that no wait ends a moment early and spins; 0 behind it.
int pollTime(SteadyTime deadline);

// Connects to one address of the server after the other until one takes it. The limit is for all of them, shared out so
// that a silent one leaves time for the next; it begins once the name has been looked up, which takes as long as the
// host's resolver allows. Throws nothing. Any thread.
Connected connectTcp(const DirectoryServer& server, std::chrono::milliseconds limit);

// Datagram sockets to the server's first few addresses, each of which hears from its own alone; none when the name does
// not resolve.
std::vector<FileDescriptor> connectUdp(const DirectoryServer& server);

}  // namespace lumo
