// How long the server bears a client, how many it serves at once, and its end.
#include <poll.h>
#include <sys/resource.h>

#include <memory>
#include <thread>
#include <vector>

#include "quill/local_rpc_server.h"
#include "quill/tests/served_agent.h"
#include "testsupport/failure_of.h"
#include "testsupport/sanitizers.h"

namespace {

using lumo::FileDescriptor;
using lumo::IOException;
using lumo::IPCException;
using lumo::LocalRpcServer;
using lumo::LocalRpcSession;
using testsupport::wordsOf;
using namespace std::chrono_literals;

using LocalRpcServerLimitsTest = LocalRpcServerTest;

TEST_F(LocalRpcServerLimitsTest, AClientThatStallsWithinARequestIsDisconnected) {
  options.callLimit = 30ms;
  LocalRpcServer server(agent, options);
  const FileDescriptor client = raw::connectTo(options.path);
  raw::write(client, FIPS_FRAME.substr(0, 7));
  EXPECT_EQ(raw::readFrame(client), "END");
}

TEST_F(LocalRpcServerLimitsTest, AnIdleClientIsDisconnected) {
  options.idleLimit = 2s;  // time enough for the request, on a busy machine too
  LocalRpcServer server(agent, options);
  const FileDescriptor client = raw::connectTo(options.path);
  raw::write(client, FIPS_FRAME);
  EXPECT_EQ(raw::readFrame(client), FIPS_REPLY);
  EXPECT_EQ(raw::readFrame(client), "END");
}

TEST_F(LocalRpcServerLimitsTest, AClientThatDoesNotReadItsReplyIsDisconnected) {
  options.callLimit = 500ms;  // time enough for the session's call, on a busy machine too
  options.maxClients = 1;
  agent.padding = 1000000;
  LocalRpcServer server(agent, options);
  const FileDescriptor client = raw::connectTo(options.path);
  raw::write(client, lumo::rpcFrame(R"({"jsonrpc":"2.0","id":1,"method":"authenticateProcess"})") +
                         lumo::rpcFrame(R"({"jsonrpc":"2.0","id":2,"method":"ldapFetch","params":)"
                                        R"({"base":"","dn":"d","flags":0}})"));
  // The only place is free again, though this client never closes.
  EXPECT_EQ(session().getFipsMode(), 1);
}

TEST_F(LocalRpcServerLimitsTest, TwentyClientsAtOnceAreServed) {
  LocalRpcServer server(agent, options);
  agent.hold = true;
  std::vector<std::thread> clients;
  std::atomic<int> sum{0};
  for (int i = 0; i < 20; ++i) {
    clients.emplace_back([&, i] {
      auto client = session();
      sum += client.getFipsMode();
      client.authenticateProcess();
      for (int round = 0; round < 5; ++round) {
        const std::string name = "user" + std::to_string(i);
        if (client.getUserObj(name, lumo::UNIX_ONLY)->dn() == "CN=" + name) ++sum;
      }
    });
  }
  agent.awaitInHand(20);
  agent.letGo();
  for (auto& client : clients) client.join();
  EXPECT_EQ(sum, 120);
}

TEST_F(LocalRpcServerLimitsTest, AClientBeyondTheBoundWaitsForAPlace) {
  options.maxClients = 2;
  LocalRpcServer server(agent, options);
  auto first = session();
  auto second = session();
  EXPECT_EQ(first.getFipsMode() + second.getFipsMode(), 2);
  LocalRpcSession early(options.path, false, false, 50ms);
  EXPECT_EQ(wordsOf<IPCException>([&] { early.getFipsMode(); }), "The RPC peer does not answer in time");
  early.close();
  auto third = session();
  first.close();
  EXPECT_EQ(third.getFipsMode(), 1);
}

TEST_F(LocalRpcServerLimitsTest, AThousandClientsLeaveNothingBehind) {
  LocalRpcServer server(agent, options);
  EXPECT_EQ(session().getFipsMode(), 1);
  const int before = raw::countOf("fd");
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(session().getFipsMode(), 1);
  // A client that is gone keeps its descriptor at most until its place is counted again.
  EXPECT_LE(raw::countOf("fd"), before + 20);
}

TEST_F(LocalRpcServerLimitsTest, OutOfDescriptorsAClientIsServedOnceThereAreSome) {
#if defined(__clang__) && defined(FERRO_SANITIZED_ADDRESS)
  GTEST_SKIP() << "clang's UBSan looks at memory through a pipe, and takes it for damaged where it gets none; the "
                  "build without a sanitizer runs this";
#endif
  LocalRpcServer server(agent, options);
  const FileDescriptor client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  rlimit normal{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &normal), 0);
  const rlimit none{static_cast<rlim_t>(client.get()) + 1, normal.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const sockaddr_un address = raw::addressOf(options.path);
  EXPECT_EQ(connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  raw::write(client, FIPS_FRAME);
  pollfd answered{client.get(), POLLIN, 0};
  EXPECT_EQ(poll(&answered, 1, 50), 0);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &normal), 0);
  EXPECT_EQ(raw::readFrame(client), FIPS_REPLY);
}

TEST_F(LocalRpcServerLimitsTest, StopLetsARequestInHandEndAndLeavesNothing) {
  const int descriptors = raw::countOf("fd");
  raw::haveHadAThread();
  const int threads = raw::countOf("task");
  auto server = std::make_unique<LocalRpcServer>(agent, options);
  agent.hold = true;
  std::string outcome;
  std::thread busy([&] { outcome = wordsOf<IPCException>([&] { EXPECT_EQ(session().getFipsMode(), 1); }); });
  auto idle = session();
  agent.awaitInHand(1);
  std::thread release([&] { agent.letGo(); });
  server->stop();
  server->stop();
  release.join();
  busy.join();
  EXPECT_EQ(agent.inHand, 0);
  EXPECT_EQ(outcome, "nothing thrown");
  EXPECT_EQ(wordsOf<IPCException>([&] { idle.getFipsMode(); }), "The agent closed the connection");
  idle.close();
  EXPECT_EQ(wordsOf<IOException>([&] { session(); }), "Nobody serves " + options.path + ": No such file or directory");
  server.reset();
  EXPECT_EQ(raw::countOf("fd"), descriptors);
  EXPECT_EQ(raw::threadsDownTo(threads), threads);
  LocalRpcServer again(agent, options);
  EXPECT_EQ(session().getFipsMode(), 1);
}

TEST_F(LocalRpcServerLimitsTest, StopDoesNotWaitForAClientThatDoesNotRead) {
  options.callLimit = 1h;
  agent.padding = 1000000;
  const FileDescriptor client = [&] {
    LocalRpcServer server(agent, options);
    FileDescriptor made = raw::connectTo(options.path);
    raw::write(made, lumo::rpcFrame(R"({"jsonrpc":"2.0","id":1,"method":"authenticateProcess"})") +
                         lumo::rpcFrame(R"({"jsonrpc":"2.0","id":2,"method":"ldapFetch","params":)"
                                        R"({"base":"","dn":"d","flags":0}})"));
    raw::readFrame(made);
    return made;
  }();
  EXPECT_TRUE(client);
}

}  // namespace
