#include "quill/local_rpc_session.h"

#include <poll.h>

#include <csignal>

#include "base/include/exceptions.h"
#include "quill/tests/raw_peer.h"
#include "testsupport/failure_of.h"

namespace {

using lumo::FileDescriptor;
using lumo::IOException;
using lumo::IPCException;
using lumo::LocalRpcSession;
using lumo::rpcFrame;
using lumo::SystemException;
using testsupport::wordsOf;
using namespace std::chrono_literals;

const std::string TRUE_1 = raw::reply(R"("id":1,"result":true)");

// What authenticateProcess says when the agent answers the request with these bytes and closes.
std::string answerTo(const std::string& bytes) {
  raw::Peer peer([&](FileDescriptor& client) {
    raw::readFrame(client);
    raw::write(client, bytes);
  });
  LocalRpcSession session(peer.path(), false, false);
  return wordsOf<IPCException>([&] { session.authenticateProcess(); });
}

TEST(LocalRpcSession, ConnectingToNobodyIsAnIOException) {
  testsupport::TempFolder folder;
  const auto open = [&](const std::string& name) {
    return wordsOf<IOException>([&] { LocalRpcSession(folder.file(name), false, false); });
  };
  EXPECT_EQ(open("missing"), "Nobody serves " + folder.file("missing") + ": No such file or directory");
  raw::listenAt(folder.file("stale"));
  EXPECT_EQ(open("stale"), "Nobody serves " + folder.file("stale") + ": Connection refused");
  testsupport::writeFile(folder.file("file"), "");
  EXPECT_EQ(open("file"), "Nobody serves " + folder.file("file") + ": Connection refused");
  EXPECT_EQ(open("file/below"), "Nobody serves " + folder.file("file/below") + ": Not a directory");
}

TEST(LocalRpcSession, AnEmptyPathLeadsToNobodyWhoeverServesTheAddressWithoutOne) {
  const FileDescriptor anybody = raw::listenAt("");
  EXPECT_EQ(wordsOf<IOException>([] { LocalRpcSession("", false, false); }), "The path of the agent's socket is empty");
}

TEST(LocalRpcSession, ConnectingToAFullBacklogEndsWithTheLimitAsAnIOException) {
  testsupport::TempFolder folder;
  const FileDescriptor listener = raw::listenAt(folder.file("hung"), 0);
  std::vector<FileDescriptor> waiting;
  do {
    waiting.push_back(raw::connectTo(folder.file("hung"), SOCK_NONBLOCK));
  } while (waiting.back());
  EXPECT_EQ(wordsOf<IOException>([&] { LocalRpcSession(folder.file("hung"), false, false, 30ms); }),
            "Nobody serves " + folder.file("hung") + ": Connection timed out");
}

TEST(LocalRpcSession, OtherFailuresToConnectAreSystemExceptions) {
  testsupport::TempFolder folder;
  const FileDescriptor datagram = raw::listenAt(folder.file("datagram"), 0, SOCK_DGRAM);
  EXPECT_EQ(wordsOf<SystemException>([&] { LocalRpcSession(folder.file("datagram"), false, false); }),
            "Cannot connect to " + folder.file("datagram") + ": Protocol wrong type for socket");
  const std::string tooLong(200, 'x');
  EXPECT_EQ(wordsOf<SystemException>([&] { LocalRpcSession(tooLong, false, false); }),
            "Cannot connect to " + tooLong + ": the path is too long for a socket");
}

TEST(LocalRpcSession, ReadsAReplyThatComesByteByByte) {
  raw::Peer peer([](FileDescriptor& client) {
    raw::readFrame(client);
    for (const char byte : TRUE_1) raw::write(client, std::string(1, byte));
  });
  LocalRpcSession(peer.path(), false, false).authenticateProcess();
}

TEST(LocalRpcSession, CountsItsRequests) {
  std::vector<std::string> requests;
  {
    raw::Peer peer([&](FileDescriptor& client) {
      requests.push_back(raw::readFrame(client));
      raw::write(client, TRUE_1);
      requests.push_back(raw::readFrame(client));
      raw::write(client, raw::reply(R"("id":2,"result":1)"));
      requests.push_back(raw::readFrame(client));
    });
    LocalRpcSession session(peer.path(), false, false);
    session.authenticateProcess();
    EXPECT_EQ(session.getFipsMode(), 1);
    session.close();
    session.close();
  }
  EXPECT_EQ(requests,
            (std::vector<std::string>{R"({"jsonrpc":"2.0","id":1,"method":"authenticateProcess","params":{}})",
                                      R"({"jsonrpc":"2.0","id":2,"method":"getFipsMode","params":{}})", "END"}));
}

TEST(LocalRpcSession, AnErrorReplyIsAnIPCExceptionAndTheSessionGoesOn) {
  raw::Peer peer([](FileDescriptor& client) {
    raw::readFrame(client);
    raw::write(client, raw::reply(R"("id":1,"error":{"code":-32000,"message":"no domain"})"));
    raw::readFrame(client);
    raw::write(client, raw::reply(R"("id":2,"result":0)"));
  });
  LocalRpcSession session(peer.path(), false, false);
  try {
    session.ldapFetch("", "CN=h", nullptr, 0);
    ADD_FAILURE();
  } catch (const IPCException& failure) {
    EXPECT_STREQ(failure.what(), "The agent could not serve ldapFetch: no domain");
    EXPECT_EQ(failure.rc(), -32000);
  }
  EXPECT_EQ(session.getFipsMode(), 0);
}

TEST(LocalRpcSession, TheWordsOfAnAgentAreEscaped) {
  EXPECT_EQ(answerTo(raw::reply(R"("id":1,"error":{"code":-1,"message":"no\nforged\u001b[2J"})")),
            "The agent could not serve authenticateProcess: no\\nforged\\x1b[2J");
}

TEST(LocalRpcSession, AnAgentThatTalksNonsenseIsAnIPCException) {
  EXPECT_EQ(answerTo(rpcFrame("garbage")), "The agent's reply is no JSON: Invalid value. (byte 0)");
  EXPECT_EQ(answerTo(raw::reply(R"("id":7,"result":true)")), "The agent's reply answers request 7, not 1");
  EXPECT_EQ(answerTo(raw::reply(R"("id":1,"result":3)")),
            "The agent's reply to authenticateProcess holds a result of another kind");
  EXPECT_EQ(answerTo(raw::reply(R"("id":1,"result":false)")), "The agent does not accept this process");
  EXPECT_EQ(answerTo(std::string(4, '\0')), "RPC frame of 0 bytes, allowed are 1 to 1048576");
  EXPECT_EQ(answerTo(std::string("\0\x10\0\1", 4)), "RPC frame of 1048577 bytes, allowed are 1 to 1048576");
  EXPECT_EQ(answerTo("HTTP/1.1 400 Bad Request\r\n"), "RPC frame of 1213486160 bytes, allowed are 1 to 1048576");
}

TEST(LocalRpcSession, AnAgentThatDiesIsAnIPCException) {
  EXPECT_EQ(answerTo(""), "The agent closed the connection");
  EXPECT_EQ(answerTo(TRUE_1.substr(0, 2)), "The RPC connection ended within a message");
  EXPECT_EQ(answerTo(TRUE_1.substr(0, TRUE_1.size() - 1)), "The RPC connection ended within a message");
}

TEST(LocalRpcSession, AnAgentThatIsGoneBeforeTheRequestIsAnIPCExceptionAndNoSignal) {
  std::signal(SIGPIPE, SIG_DFL);
  testsupport::TempFolder folder;
  FileDescriptor listener = raw::listenAt(folder.file("agent"));
  LocalRpcSession session(folder.file("agent"), false, false);
  { const FileDescriptor client(accept(listener.get(), nullptr, nullptr)); }
  EXPECT_EQ(wordsOf<IPCException>([&] { session.getFipsMode(); }), "The agent closed the connection");
  EXPECT_EQ(wordsOf<IPCException>([&] { session.getFipsMode(); }), "The session with the agent is closed");
}

TEST(LocalRpcSession, ARefusalSentUnaskedIsReadThoughTheAgentIsGone) {
  testsupport::TempFolder folder;
  FileDescriptor listener = raw::listenAt(folder.file("agent"));
  LocalRpcSession session(folder.file("agent"), false, false);
  {
    const FileDescriptor client(accept(listener.get(), nullptr, nullptr));
    raw::write(client, raw::reply(R"("id":null,"error":{"code":-32001,"message":"not you"})"));
  }
  EXPECT_EQ(wordsOf<IPCException>([&] { session.authenticateProcess(); }),
            "The agent could not serve authenticateProcess: not you");
}

TEST(LocalRpcSession, ASilentAgentIsAnIPCExceptionWhenTheLimitHasPassed) {
  raw::Peer peer([](FileDescriptor& client) { raw::awaitEnd(client); });
  LocalRpcSession session(peer.path(), false, false, 30ms);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(wordsOf<IPCException>([&] { session.getFipsMode(); }), "The RPC peer does not answer in time");
  EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
  EXPECT_EQ(wordsOf<IPCException>([&] { session.getFipsMode(); }), "The session with the agent is closed");
  session.close();
}

TEST(LocalRpcSession, AnAgentThatStallsWithinAReplyIsAnIPCExceptionWhenTheLimitHasPassed) {
  raw::Peer peer([](FileDescriptor& client) {
    raw::readFrame(client);
    raw::write(client, TRUE_1.substr(0, 9));
    raw::awaitEnd(client);
  });
  LocalRpcSession session(peer.path(), false, false, 30ms);
  EXPECT_EQ(wordsOf<IPCException>([&] { session.authenticateProcess(); }), "The RPC peer does not answer in time");
  session.close();
}

TEST(LocalRpcSession, AnAgentThatDribblesDoesNotStretchTheLimit) {
  raw::Peer peer([](FileDescriptor& client) {
    raw::readFrame(client);
    raw::write(client, std::string("\0\x10\0\0", 4));
    pollfd gone{client.get(), POLLIN, 0};
    do {
      raw::write(client, " ");
    } while (poll(&gone, 1, 5) == 0);
  });
  LocalRpcSession session(peer.path(), false, false, 50ms);
  EXPECT_EQ(wordsOf<IPCException>([&] { session.authenticateProcess(); }), "The RPC peer does not answer in time");
  session.close();
}

TEST(LocalRpcSession, AnAgentThatDoesNotReadIsAnIPCExceptionWhenTheLimitHasPassed) {
  testsupport::TempFolder folder;
  const FileDescriptor listener = raw::listenAt(folder.file("agent"));
  LocalRpcSession session(folder.file("agent"), false, false, 30ms);
  EXPECT_EQ(wordsOf<IPCException>([&] { session.ldapFetch("", std::string(1000000, 'x'), nullptr, 0); }),
            "The RPC peer does not take the message in time");
}

TEST(LocalRpcSession, ARequestTooLargeIsRefusedBeforeItIsSent) {
  raw::Peer peer([](FileDescriptor& client) {
    EXPECT_EQ(raw::readFrame(client), R"({"jsonrpc":"2.0","id":2,"method":"getFipsMode","params":{}})");
    raw::write(client, raw::reply(R"("id":2,"result":1)"));
  });
  LocalRpcSession session(peer.path(), false, false);
  const std::string rest = R"({"jsonrpc":"2.0","id":1,"method":"getUserObj","params":{"name":"","lookup":"unix"}})";
  EXPECT_EQ(wordsOf<IPCException>(
                [&] { session.getUserObj(std::string(lumo::MAX_FRAME - rest.size() + 1, 'x'), lumo::UNIX_ONLY); }),
            "Cannot send the request getUserObj: RPC frame of 1048577 bytes, allowed are 1 to 1048576");
  EXPECT_EQ(session.getFipsMode(), 1);
}

TEST(LocalRpcSession, ARequestOfExactlyOneMebibyteIsSent) {
  raw::Peer peer([](FileDescriptor& client) {
    EXPECT_EQ(raw::readFrame(client).size(), lumo::MAX_FRAME);
    raw::write(client, raw::reply(R"("id":1,"result":null)"));
  });
  LocalRpcSession session(peer.path(), false, false);
  const std::string rest = R"({"jsonrpc":"2.0","id":1,"method":"getUserObj","params":{"name":"","lookup":"unix"}})";
  EXPECT_EQ(session.getUserObj(std::string(lumo::MAX_FRAME - rest.size(), 'x'), lumo::UNIX_ONLY), nullptr);
}

TEST(LocalRpcSession, LeavesNoDescriptor) {
  const int before = raw::countOf("fd");
  answerTo(TRUE_1);
  answerTo("");
  testsupport::TempFolder folder;
  wordsOf<IOException>([&] { LocalRpcSession(folder.file("missing"), false, false); });
  EXPECT_EQ(raw::countOf("fd"), before);
}

}  // namespace
