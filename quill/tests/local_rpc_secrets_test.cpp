// What a request may hold, a password among it, is nobody's to find afterwards.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "quill/local_rpc_server.h"
#include "quill/tests/raw_peer.h"
#include "testsupport/process_memory.h"
#include "testsupport/sanitizers.h"

namespace {

using lumo::FileDescriptor;
using lumo::rpcFrame;
using testsupport::RARE_LENGTH;
using testsupport::rareCharacter;

// Looks at what it is given and keeps nothing.
class Agent : public lumo::LocalRpcHandler {
 public:
  void authenticateProcess(const lumo::RpcCaller&) override {}
  ADObjectPtr getUserObj(const lumo::RpcCaller&, const std::string&, lumo::UserLookup) override { return nullptr; }
  ADObjectPtr ldapFetch(const lumo::RpcCaller&, const std::string&, const std::string&, const std::vector<std::string>*,
                        int) override {
    return nullptr;
  }
  int getFipsMode(const lumo::RpcCaller&) override { return 0; }
  std::string call(const lumo::RpcCaller&, const std::string&, const std::string& params) override {
    const std::size_t start = params.find("\":\"") + 3;
    unsigned right = 0;
    while (right < RARE_LENGTH && params[start + right] == rareCharacter(right)) ++right;
    return right == RARE_LENGTH ? "true" : "false";
  }
};

// A request with the secret in it, behind so much else, that never stands in one piece on this side.
void sendSecret(const FileDescriptor& client, std::size_t padding, bool whole) {
  const std::string before =
      R"({"jsonrpc":"2.0","id":2,"method":"login","params":{)" + std::string(padding, ' ') + R"("password":")";
  const std::string behind = "\"}}";
  const std::string header = rpcFrame(std::string(before.size() + RARE_LENGTH + behind.size(), ' ')).substr(0, 4);
  raw::write(client, header + before);
  for (unsigned i = 0; i < RARE_LENGTH; ++i) raw::write(client, std::string(1, rareCharacter(i)));
  if (whole) raw::write(client, behind);
}

std::size_t places() { return testsupport::placesOf(RARE_LENGTH, &rareCharacter).size(); }

TEST(LocalRpcSecrets, NothingOfARequestStaysInTheServersMemory) {
#ifdef FERRO_SANITIZED
  GTEST_SKIP() << "the memory of a sanitizer is too large to search; the build without one runs this";
#endif
  const testsupport::TempFolder folder;
  Agent agent;
  lumo::LocalRpcServerOptions options;
  options.path = folder.file("agent");
  options.rootOnly = false;
  {
    const lumo::LocalRpcServer server(agent, options);
    const FileDescriptor client = raw::connectTo(options.path);
    raw::write(client, rpcFrame(R"({"jsonrpc":"2.0","id":1,"method":"authenticateProcess"})"));
    EXPECT_EQ(raw::readFrame(client), R"({"jsonrpc":"2.0","id":1,"result":true})");
    // A long one: memory that was given back is not soon in use again as far as the secret.
    sendSecret(client, 4000, true);
    EXPECT_EQ(raw::readFrame(client), R"({"jsonrpc":"2.0","id":2,"result":true})");
    // With the next reply the last request is done with.
    raw::write(client, rpcFrame(R"({"jsonrpc":"2.0","id":3,"method":"getFipsMode"})"));
    EXPECT_EQ(raw::readFrame(client), R"({"jsonrpc":"2.0","id":3,"result":0})");
    EXPECT_EQ(places(), 0U);
    sendSecret(client, 0, false);
    shutdown(client.get(), SHUT_WR);
    EXPECT_EQ(raw::readFrame(client), "END");
  }
  EXPECT_EQ(places(), 0U);
}

}  // namespace
