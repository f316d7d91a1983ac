#include "quill/local_rpc_server.h"

#include <unistd.h>

#include "quill/rpc_message.h"
#include "quill/tests/served_agent.h"
#include "testsupport/failure_of.h"

namespace {

using lumo::IPCException;
using lumo::LocalRpcServer;
using lumo::LocalRpcSession;
using testsupport::wordsOf;

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
  EXPECT_EQ(wordsOf<IPCException>([&] { client.getUserObj("jdoe", lumo::UNIX_ONLY); }),
            "The agent could not serve getUserObj: The caller has not authenticated itself");
  EXPECT_EQ(wordsOf<IPCException>([&] { client.ldapFetch("", "CN=h", nullptr, 0); }),
            "The agent could not serve ldapFetch: The caller has not authenticated itself");
  agent.refuse = true;
  EXPECT_EQ(wordsOf<IPCException>([&] { client.authenticateProcess(); }),
            "The agent could not serve authenticateProcess: process " + std::to_string(getpid()) + " is unknown");
  EXPECT_EQ(wordsOf<IPCException>([&] { client.getUserObj("jdoe", lumo::UNIX_ONLY); }),
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
    return wordsOf<IPCException>([&] { client.getUserObj(name, lumo::UNIX_ONLY); });
  };
  EXPECT_EQ(failure("fail"), "The agent could not serve getUserObj: out of luck");
  EXPECT_EQ(failure("odd"), "The agent could not serve getUserObj: The agent failed for an unknown reason");
  EXPECT_EQ(failure("broken"), "The agent could not serve getUserObj: An RPC message holds a name that is no UTF-8");
  EXPECT_EQ(failure("jdoe"), "nothing thrown");
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
  EXPECT_EQ(wordsOf<IPCException>([&] { client.ldapFetch("", "CN=h", nullptr, 0); }),
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
  class Careless : public ServedAgent {
    std::string call(const lumo::RpcCaller&, const std::string&, const std::string&) override { return "{broken"; }
  } careless;
  LocalRpcServer server(careless, options);
  auto client = session();
  client.authenticateProcess();
  EXPECT_EQ(wordsOf<IPCException>([&] { client.call("any", "{}"); }),
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

}  // namespace
