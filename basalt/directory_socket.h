// Sockets to directory servers.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "basalt/posix_file.h"

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

// Connects to one address of the server after the other until one takes it or the time is up. Throws nothing. Any
// thread. Looking the name up takes as long as the host's resolver allows.
Connected connectTcp(const DirectoryServer& server, SteadyTime deadline);

// A datagram socket that sends to the server's first address and hears from it alone; empty when the name does not
// resolve.
FileDescriptor connectUdp(const DirectoryServer& server);

}  // namespace lumo
