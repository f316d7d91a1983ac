#include "quill/local_rpc_server.h"

#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "base/include/exceptions.h"
#include "quill/rpc_message.h"
#include "quill/tests/raw_peer.h"
#include "testsupport/sanitizers.h"

namespace {

using lumo::FileDescriptor;
using lumo::IOException;
using lumo::IPCException;
using lumo::LocalRpcServer;
using lumo::LocalRpcServerOptions;
using lumo::LocalRpcSession;
using lumo::RpcCaller;
using raw::thrown;
using namespace std::chrono_literals;

// A small agent: knows two users and one host, and fails where it is told to.
class Agent : public lumo::LocalRpcHandler {
 public:
  void authenticateProcess(const RpcCaller& caller) override {
    if (refuse) LUMO_THROW(IPCException, -1, "process %d is unknown", caller.pid);
    const std::lock_guard<std::mutex> lock(mutex);
    lastCaller = caller;
  }
  ADObjectPtr getUserObj(const RpcCaller&, const std::string& name, lumo::UserLookup lookup) override {
    if (name == "fail") throw std::runtime_error("out of luck");
    if (name == "odd") throw 7;
    if (name == "unknown" || lookup != lumo::UNIX_ONLY) return nullptr;
    ADObjectPtr user(new lumo::ADObject("CN=" + name));
    user->set(LUMO_USER_PRINCIPAL_NAME, {name + "@corp"});
    if (name == "broken") user->set("\xff", {"x"});
    return user;
  }
  ADObjectPtr ldapFetch(const RpcCaller&, const std::string& base, const std::string& dn,
                        const std::vector<std::string>* attributes, int flags) override {
    ADObjectPtr object(new lumo::ADObject(dn));
    object->set("base", {base});
    object->set("flags", {std::to_string(flags)});
    if (attributes != nullptr) object->set("wanted", *attributes);
    if (padding != 0) object->set("padding", {std::string(padding, 'x')});
    return object;
  }
  int getFipsMode(const RpcCaller&) override {
    std::unique_lock<std::mutex> lock(mutex);
    ++inHand;
    changed.notify_all();
    changed.wait(lock, [this] { return !hold; });
    --inHand;
    return 1;
  }
  std::string call(const RpcCaller& caller, const std::string& method, const std::string& params) override {
    if (method == "echo") return params;
    if (method == "pid") return std::to_string(caller.pid);
    if (method == "pad") return "\"" + std::string(padding, 'x') + "\"";
    if (method == "refuse") LUMO_THROW(lumo::RpcRefusedException, lumo::rpc::InvalidParams, "Wrong parameters");
    if (method == "fail") LUMO_THROW(IOException, 5, "no luck");
    return LocalRpcHandler::call(caller, method, params);
  }
  void awaitInHand(int count) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return inHand == count; });
  }
  void letGo() {
    const std::lock_guard<std::mutex> lock(mutex);
    hold = false;
    changed.notify_all();
  }

  std::atomic<bool> refuse{false};
  std::atomic<std::size_t> padding{0};
  std::mutex mutex;
  std::condition_variable changed;
  RpcCaller lastCaller;
  bool hold = false;
  int inHand = 0;
};

class LocalRpcServerTest : public testing::Test {
 protected:
  LocalRpcServerTest() {
    options.path = folder.file("agent");
    options.rootOnly = false;
  }
  LocalRpcSession session() { return LocalRpcSession(options.path, false, false); }
  // What a client that sends these bytes and waits gets back, frame by frame.
  std::vector<std::string> dialogue(const std::string& bytes) {
    const FileDescriptor client = raw::connectTo(options.path);
    raw::write(client, bytes);
    shutdown(client.get(), SHUT_WR);
    std::vector<std::string> contents;
    do {
      contents.push_back(raw::readFrame(client));
    } while (contents.back() != "END");
    return contents;
  }

  testsupport::TempFolder folder;
  Agent agent;
  LocalRpcServerOptions options;
};

const std::string FIPS_FRAME = lumo::rpcFrame(R"({"jsonrpc":"2.0","id":1,"method":"getFipsMode","params":{}})");
const std::string FIPS_REPLY = R"({"jsonrpc":"2.0","id":1,"result":1})";

TEST_F(LocalRpcServerTest, ServesEveryMethod) {
  LocalRpcServer server(agent, options);
  auto client = session();
  EXPECT_EQ(client.getFipsMode(), 1);
  client.authenticateProcess();
  EXPECT_EQ(agent.lastCaller.pid, getpid());
  EXPECT_EQ(agent.lastCaller.uid, getuid());
  EXPECT_EQ(agent.lastCaller.gid, getgid());
  EXPECT_EQ((*client.getUserObj("jdoe", lumo::UNIX_ONLY))[LUMO_USER_PRINCIPAL_NAME].toString(), "jdoe@corp");
  EXPECT_EQ(client.getUserObj("unknown", lumo::UNIX_ONLY), nullptr);
  const std::vector<std::string> wanted{"cn", "objectSid"};
  const ADObjectPtr some = client.ldapFetch("DC=corp", "CN=\xf6", &wanted, 5);
  EXPECT_EQ(some->dn(), "CN=\xf6");
  EXPECT_EQ((*some)["base"].toString(), "DC=corp");
  EXPECT_EQ((*some)["flags"].toInt(), 5);
  EXPECT_EQ((*some)["wanted"].values(), wanted);
  EXPECT_FALSE(client.ldapFetch("", "CN=h", nullptr, 0)->attributeExists("wanted", false));
}

TEST_F(LocalRpcServerTest, DirectoryMethodsNeedAuthentication) {
  LocalRpcServer server(agent, options);
  auto client = session();
  EXPECT_EQ(thrown<IPCException>([&] { client.getUserObj("jdoe", lumo::UNIX_ONLY); }),
            "The agent could not serve getUserObj: The caller has not authenticated itself");
  EXPECT_EQ(thrown<IPCException>([&] { client.ldapFetch("", "CN=h", nullptr, 0); }),
            "The agent could not serve ldapFetch: The caller has not authenticated itself");
  agent.refuse = true;
  EXPECT_EQ(thrown<IPCException>([&] { client.authenticateProcess(); }),
            "The agent could not serve authenticateProcess: process " + std::to_string(getpid()) + " is unknown");
  EXPECT_EQ(thrown<IPCException>([&] { client.getUserObj("jdoe", lumo::UNIX_ONLY); }),
            "The agent could not serve getUserObj: The caller has not authenticated itself");
  agent.refuse = false;
  client.authenticateProcess();
  EXPECT_NE(client.getUserObj("jdoe", lumo::UNIX_ONLY), nullptr);
}

TEST_F(LocalRpcServerTest, AHandlersExceptionIsAnErrorReplyAndTheConversationGoesOn) {
  LocalRpcServer server(agent, options);
  auto client = session();
  client.authenticateProcess();
  const auto failure = [&](const char* name) {
    return thrown<IPCException>([&] { client.getUserObj(name, lumo::UNIX_ONLY); });
  };
  EXPECT_EQ(failure("fail"), "The agent could not serve getUserObj: out of luck");
  EXPECT_EQ(failure("odd"), "The agent could not serve getUserObj: The agent failed for an unknown reason");
  EXPECT_EQ(failure("broken"), "The agent could not serve getUserObj: An RPC message holds a name that is no UTF-8");
  EXPECT_EQ(failure("jdoe"), "nothing");
}

TEST_F(LocalRpcServerTest, AReplyUpToOneMebibyteIsSentAndALargerOneIsAnError) {
  LocalRpcServer server(agent, options);
  auto client = session();
  client.authenticateProcess();
  ADObjectPtr object(new lumo::ADObject("CN=h"));
  object->set("base", {""});
  object->set("flags", {"0"});
  object->set("padding", {""});
  const std::size_t rest = lumo::encodeReply({2, object}).size();
  agent.padding = lumo::MAX_FRAME - rest;
  EXPECT_EQ((*client.ldapFetch("", "CN=h", nullptr, 0))["padding"].toString().size(), lumo::MAX_FRAME - rest);
  agent.padding = lumo::MAX_FRAME - rest + 1;
  EXPECT_EQ(thrown<IPCException>([&] { client.ldapFetch("", "CN=h", nullptr, 0); }),
            "The agent could not serve ldapFetch: The reply is larger than 1 MiB");
  agent.padding = 1;
  EXPECT_NE(client.ldapFetch("", "CN=h", nullptr, 0), nullptr);
}

TEST_F(LocalRpcServerTest, AnAgentsOwnMethodsAreServed) {
  LocalRpcServer server(agent, options);
  auto client = session();
  client.authenticateProcess();
  EXPECT_EQ(client.call("echo", R"({"a": [1, "\u00e9"]})"), R"({"a": [1, "\u00e9"]})");
  EXPECT_EQ(client.call("echo", "null"), "null");
  EXPECT_EQ(client.call("pid", "{}"), std::to_string(getpid()));
  // The others can be asked for like this as well.
  EXPECT_EQ(client.call("getFipsMode", "{}"), "1");
}

TEST_F(LocalRpcServerTest, AnAgentsOwnMethodFailsWithItsCode) {
  LocalRpcServer server(agent, options);
  auto client = session();
  const auto failure = [&](const std::string& method, const std::string& params) {
    try {
      return client.call(method, params);
    } catch (const IPCException& failed) {
      return std::to_string(failed.rc()) + " " + failed.what();
    }
  };
  EXPECT_EQ(failure("echo", "{}"), "-32002 The agent could not serve echo: The caller has not authenticated itself");
  EXPECT_EQ(failure("stop", "{}"), "-32002 The agent could not serve stop: The caller has not authenticated itself");
  client.authenticateProcess();
  EXPECT_EQ(failure("stop", "{}"), "-32601 The agent could not serve stop: Unknown method");
  EXPECT_EQ(failure("refuse", "{}"), "-32602 The agent could not serve refuse: Wrong parameters");
  EXPECT_EQ(failure("fail", "{}"), "-32000 The agent could not serve fail: no luck");
  EXPECT_EQ(failure("echo", "{"), "-1 Cannot send the request echo: What an RPC message holds as params is no JSON");
  agent.padding = lumo::MAX_FRAME;
  EXPECT_EQ(failure("pad", "{}"), "-32003 The agent could not serve pad: The reply is larger than 1 MiB");
  EXPECT_EQ(failure("echo", "[7]"), "[7]");
}

TEST_F(LocalRpcServerTest, AResultThatIsNoJsonIsAFailureOfTheAgent) {
  class Careless : public Agent {
    std::string call(const RpcCaller&, const std::string&, const std::string&) override { return "{broken"; }
  } careless;
  LocalRpcServer server(careless, options);
  auto client = session();
  client.authenticateProcess();
  EXPECT_EQ(thrown<IPCException>([&] { client.call("any", "{}"); }),
            "The agent could not serve any: What an RPC message holds as result is no JSON");
  EXPECT_EQ(client.getFipsMode(), 1);
}

TEST_F(LocalRpcServerTest, RequestsInOneWriteAreAnsweredInOrder) {
  LocalRpcServer server(agent, options);
  const std::string second = lumo::rpcFrame(R"({"jsonrpc":"2.0","id":2,"method":"getFipsMode"})");
  EXPECT_EQ(dialogue(FIPS_FRAME + second),
            (std::vector<std::string>{FIPS_REPLY, R"({"jsonrpc":"2.0","id":2,"result":1})", "END"}));
}

TEST_F(LocalRpcServerTest, NonsenseIsAnsweredWithAnErrorWhereTheFrameHolds) {
  LocalRpcServer server(agent, options);
  EXPECT_EQ(dialogue(lumo::rpcFrame("garbage") + FIPS_FRAME),
            (std::vector<std::string>{R"({"jsonrpc":"2.0","id":null,"error":{"code":-32700,"message":)"
                                      R"("The request is no JSON: Invalid value."}})",
                                      FIPS_REPLY, "END"}));
  EXPECT_EQ(dialogue(lumo::rpcFrame(R"({"jsonrpc":"2.0","id":4,"method":"stop"})") +
                     lumo::rpcFrame(R"({"jsonrpc":"2.0","id":5,"method":"authenticateProcess"})") +
                     lumo::rpcFrame(R"({"jsonrpc":"2.0","id":6,"method":"stop"})") +
                     lumo::rpcFrame(R"({"jsonrpc":"2.0","id":7,"method":"echo"})")),
            (std::vector<std::string>{R"({"jsonrpc":"2.0","id":4,"error":{"code":-32002,"message":)"
                                      R"("The caller has not authenticated itself"}})",
                                      R"({"jsonrpc":"2.0","id":5,"result":true})",
                                      R"({"jsonrpc":"2.0","id":6,"error":{"code":-32601,"message":"Unknown method"}})",
                                      R"({"jsonrpc":"2.0","id":7,"result":null})", "END"}));
  EXPECT_EQ(dialogue(lumo::rpcFrame(std::string(lumo::MAX_FRAME, '[')))[0].substr(0, 53),
            R"({"jsonrpc":"2.0","id":null,"error":{"code":-32700,"me)");
}

TEST_F(LocalRpcServerTest, ABrokenFrameEndsThatConversationAlone) {
  LocalRpcServer server(agent, options);
  auto other = session();
  EXPECT_EQ(other.getFipsMode(), 1);
  EXPECT_EQ(dialogue(std::string(4, '\0')), std::vector<std::string>{"END"});
  EXPECT_EQ(dialogue(std::string("\0\x10\0\1", 4)), std::vector<std::string>{"END"});
  EXPECT_EQ(dialogue(FIPS_FRAME.substr(0, 2)), std::vector<std::string>{"END"});
  EXPECT_EQ(dialogue(FIPS_FRAME.substr(0, 20)), std::vector<std::string>{"END"});
  EXPECT_EQ(other.getFipsMode(), 1);
}

TEST_F(LocalRpcServerTest, AClientThatStallsWithinARequestIsDisconnected) {
  options.callLimit = 30ms;
  LocalRpcServer server(agent, options);
  const FileDescriptor client = raw::connectTo(options.path);
  raw::write(client, FIPS_FRAME.substr(0, 7));
  EXPECT_EQ(raw::readFrame(client), "END");
}

TEST_F(LocalRpcServerTest, AnIdleClientIsDisconnected) {
  options.idleLimit = 30ms;
  LocalRpcServer server(agent, options);
  const FileDescriptor client = raw::connectTo(options.path);
  raw::write(client, FIPS_FRAME);
  EXPECT_EQ(raw::readFrame(client), FIPS_REPLY);
  EXPECT_EQ(raw::readFrame(client), "END");
}

TEST_F(LocalRpcServerTest, AClientThatDoesNotReadItsReplyIsDisconnected) {
  options.callLimit = 30ms;
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

TEST_F(LocalRpcServerTest, TwentyClientsAtOnceAreServed) {
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

TEST_F(LocalRpcServerTest, AClientBeyondTheBoundWaitsForAPlace) {
  options.maxClients = 2;
  LocalRpcServer server(agent, options);
  auto first = session();
  auto second = session();
  EXPECT_EQ(first.getFipsMode() + second.getFipsMode(), 2);
  LocalRpcSession early(options.path, false, false, 50ms);
  EXPECT_EQ(thrown<IPCException>([&] { early.getFipsMode(); }), "The RPC peer does not answer in time");
  early.close();
  auto third = session();
  first.close();
  EXPECT_EQ(third.getFipsMode(), 1);
}

TEST_F(LocalRpcServerTest, AThousandClientsLeaveNothingBehind) {
  LocalRpcServer server(agent, options);
  EXPECT_EQ(session().getFipsMode(), 1);
  const int before = raw::countOf("fd");
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(session().getFipsMode(), 1);
  // A client that is gone keeps its descriptor at most until its place is counted again.
  EXPECT_LE(raw::countOf("fd"), before + 20);
}

TEST_F(LocalRpcServerTest, OutOfDescriptorsAClientIsServedOnceThereAreSome) {
#if defined(__clang__) && defined(FERRO_SANITIZED_ADDRESS)
  GTEST_SKIP() << "clang's UBSan looks at memory through a pipe, and takes it for damaged where it gets none";
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

TEST_F(LocalRpcServerTest, StopLetsARequestInHandEndAndLeavesNothing) {
  const int descriptors = raw::countOf("fd");
  raw::haveHadAThread();
  const int threads = raw::countOf("task");
  auto server = std::make_unique<LocalRpcServer>(agent, options);
  agent.hold = true;
  std::string outcome;
  std::thread busy([&] { outcome = thrown<IPCException>([&] { EXPECT_EQ(session().getFipsMode(), 1); }); });
  auto idle = session();
  agent.awaitInHand(1);
  std::thread release([&] { agent.letGo(); });
  server->stop();
  server->stop();
  release.join();
  busy.join();
  EXPECT_EQ(agent.inHand, 0);
  EXPECT_EQ(outcome, "nothing");
  EXPECT_EQ(thrown<IPCException>([&] { idle.getFipsMode(); }), "The agent closed the connection");
  idle.close();
  EXPECT_EQ(thrown<IOException>([&] { session(); }), "Nobody serves " + options.path + ": No such file or directory");
  server.reset();
  EXPECT_EQ(raw::countOf("fd"), descriptors);
  EXPECT_EQ(raw::threadsDownTo(threads), threads);
  LocalRpcServer again(agent, options);
  EXPECT_EQ(session().getFipsMode(), 1);
}

TEST_F(LocalRpcServerTest, StopDoesNotWaitForAClientThatDoesNotRead) {
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
