// The client of the local RPC before an agent that sends any bytes: every call ends with a result or with an
// IPCException whose words can be printed.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "basalt/files/posix_file.h"
#include "base/include/exceptions.h"
#include "fuzz/shown_text.h"
#include "quill/local_rpc_session.h"

namespace {

// A socket that the fuzzer itself serves, in a folder that goes with the process.
class Agent {
 public:
  Agent() : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    char folder[] = "/tmp/rpc_reply_fuzz.XXXXXX";
    if (mkdtemp(folder) == nullptr) std::abort();
    m_folder = folder;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path().c_str(), path().size());
    if (bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) std::abort();
    if (listen(m_socket.get(), 4) != 0) std::abort();
  }
  ~Agent() {
    unlink(path().c_str());
    rmdir(m_folder.c_str());
  }
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  std::string path() const { return m_folder + "/agent"; }

  // The next client, with these bytes on their way to it and nothing behind them.
  lumo::FileDescriptor answer(const uint8_t* bytes, size_t size) const {
    lumo::FileDescriptor client(accept4(m_socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client || send(client.get(), bytes, size, MSG_DONTWAIT) < 0) std::abort();
    shutdown(client.get(), SHUT_WR);
    return client;
  }

 private:
  std::string m_folder;
  lumo::FileDescriptor m_socket;
};

template <typename Call>
void calls(Call call) {
  try {
    call();
  } catch (const lumo::IPCException& failure) {
    requireShown(failure.what(), false);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Agent agent;
  if (size == 0 || size > 65536) return 0;
  lumo::LocalRpcSession session(agent.path(), false, false);
  const lumo::FileDescriptor client = agent.answer(data + 1, size - 1);
  // Several calls over one stream: what is behind the first reply is the next one's.
  for (unsigned i = 0; i < 3; ++i) {
    switch ((data[0] + i) % 4U) {
      case 0:
        calls([&] { session.authenticateProcess(); });
        break;
      case 1:
        calls([&] { session.getUserObj("jdoe", lumo::UNIX_ONLY); });
        break;
      case 2:
        calls([&] { session.getFipsMode(); });
        break;
      default:
        calls([&] { session.call("own", "[]"); });
    }
  }
  return 0;
}
