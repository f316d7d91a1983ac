#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <list>

#include "base/include/exceptions.h"
#include "base/include/logger.h"
#include "base/include/properties.h"
#include "quill/local_rpc_server.h"
#include "quill/tests/raw_peer.h"
#include "testsupport/private_host.h"

namespace {

using lumo::IPCException;
using lumo::LocalRpcServer;
using lumo::LocalRpcServerOptions;
using lumo::LocalRpcSession;
using lumo::RpcCaller;

constexpr uid_t NOBODY = 65534;

class Agent : public lumo::LocalRpcHandler {
 public:
  void authenticateProcess(const RpcCaller& caller) override { lastUid = caller.uid; }
  ADObjectPtr getUserObj(const RpcCaller&, const std::string&, lumo::UserLookup) override { return nullptr; }
  ADObjectPtr ldapFetch(const RpcCaller&, const std::string&, const std::string&, const std::vector<std::string>*,
                        int) override {
    return nullptr;
  }
  int getFipsMode(const RpcCaller&) override { return 1; }

  std::atomic<uid_t> lastUid{0};
};

// What a child process of another user comes to when it talks to the agent.
std::string asNobody(const std::string& path) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    std::string words = "served";
    if (setgid(NOBODY) != 0 || setuid(NOBODY) != 0) words = "cannot change user";
    try {
      LocalRpcSession(path, false, false).authenticateProcess();
    } catch (const LUMOException& failure) {
      words = std::string(failure.className()) + ": " + failure.what();
    }
    [[maybe_unused]] const ssize_t n = write(ends[1], words.data(), words.size());
    _exit(0);
  }
  close(ends[1]);
  const lumo::FileDescriptor reading(ends[0]);
  std::string words;
  char buffer[512];
  for (ssize_t n = 0; (n = read(reading.get(), buffer, sizeof buffer)) > 0;)
    words.append(buffer, static_cast<size_t>(n));
  waitpid(pid, nullptr, 0);
  return words;
}

// A process of another user that opens connections, asks once over each, and keeps them, idle, until it is told to go.
class IdleUser {
 public:
  IdleUser(const std::string& path, uid_t uid, int connections) {
    int words[2];
    int life[2];
    EXPECT_EQ(pipe(words), 0);
    EXPECT_EQ(pipe(life), 0);
    m_pid = fork();
    if (m_pid == 0) {
      close(life[1]);
      const std::string told = connected(path, uid, connections);
      [[maybe_unused]] const ssize_t n = write(words[1], told.data(), told.size());
      close(words[1]);
      char end = 0;
      [[maybe_unused]] const ssize_t ended = read(life[0], &end, 1);
      _exit(0);
    }
    close(words[1]);
    close(life[0]);
    m_life = lumo::FileDescriptor(life[1]);
    const lumo::FileDescriptor reading(words[0]);
    char buffer[8192];
    for (ssize_t n = 0; (n = read(reading.get(), buffer, sizeof buffer)) > 0;)
      outcomes.append(buffer, static_cast<size_t>(n));
  }
  ~IdleUser() {
    m_life = lumo::FileDescriptor();
    waitpid(m_pid, nullptr, 0);
  }
  IdleUser(const IdleUser&) = delete;
  IdleUser& operator=(const IdleUser&) = delete;

  std::string outcomes;  // one line for each connection that was not served, behind the number of those that were

 private:
  static std::string connected(const std::string& path, uid_t uid, int connections) {
    if (setgid(uid) != 0 || setuid(uid) != 0) return "cannot change user";
    static std::list<LocalRpcSession> kept;
    int served = 0;
    std::string refused;
    for (int i = 0; i < connections; ++i) {
      try {
        kept.emplace_back(path, false, false).authenticateProcess();
        ++served;
      } catch (const IPCException& failure) {
        kept.pop_back();
        refused += "\n" + std::to_string(failure.rc()) + " " + failure.what();
      }
    }
    return std::to_string(served) + refused;
  }

  pid_t m_pid = -1;
  lumo::FileDescriptor m_life;
};

std::string refusals(int count, const std::string& text) {
  std::string all;
  for (int i = 0; i < count; ++i) all += "\n" + text;
  return all;
}

constexpr char TOO_MANY[] =
    "-32005 The agent could not serve authenticateProcess: User 1001 has 5 connections to the agent, as many as one "
    "user may have";
constexpr char NO_PLACE[] =
    "-32004 The agent could not serve authenticateProcess: The agent serves as many clients as it can; try again later";

class LocalRpcServerRoot : public testing::Test {
 protected:
  void SetUp() override { testsupport::cleanPrivateHost(); }
  Agent agent;
  LocalRpcServerOptions options;
};

TEST_F(LocalRpcServerRoot, ServesRootAtTheDefaultPathWithADefaultModeForRootAlone) {
  LocalRpcServer server(agent, options);
  EXPECT_EQ(testsupport::modeOf("/var/morvand/daemon"), 0600U);
  EXPECT_EQ(testsupport::modeOf("/var/morvand/daemon.lock"), 0600U);
  LocalRpcSession("/var/morvand/daemon", false, false).authenticateProcess();
  EXPECT_EQ(asNobody(options.path), "SystemException: Cannot connect to /var/morvand/daemon: Permission denied");
}

TEST_F(LocalRpcServerRoot, RefusesAnotherUserWithWordsThoughTheFileIsOpenToAll) {
  options.mode = 0666;
  LocalRpcServer server(agent, options);
  EXPECT_EQ(asNobody(options.path),
            "IPCException: The agent could not serve authenticateProcess: User 65534 may not talk to the agent");
  EXPECT_EQ(LocalRpcSession(options.path, false, false).getFipsMode(), 1);
}

TEST_F(LocalRpcServerRoot, ServesAnotherUserWhenToldSoAndKnowsWhoItIs) {
  options.mode = 0666;
  options.rootOnly = false;
  LocalRpcServer server(agent, options);
  EXPECT_EQ(asNobody(options.path), "served");
  EXPECT_EQ(agent.lastUid, NOBODY);
}

TEST_F(LocalRpcServerRoot, OneUsersIdleConnectionsKeepOutNeitherRootNorAnotherUser) {
  options.mode = 0666;
  options.rootOnly = false;
  LocalRpcServer server(agent, options);
  const IdleUser greedy(options.path, 1001, 30);
  EXPECT_EQ(greedy.outcomes, "5" + refusals(25, TOO_MANY));
  EXPECT_EQ(asNobody(options.path), "served");
  EXPECT_EQ(LocalRpcSession(options.path, false, false).getFipsMode(), 1);
}

TEST_F(LocalRpcServerRoot, AllOtherUsersTogetherLeaveRootItsOwnPlaces) {
  options.mode = 0666;
  options.rootOnly = false;
  LocalRpcServer server(agent, options);
  const IdleUser first(options.path, 1001, 5);
  const IdleUser second(options.path, 1002, 5);
  const IdleUser third(options.path, 1003, 5);
  EXPECT_EQ(first.outcomes + second.outcomes + third.outcomes, "555");
  const IdleUser fourth(options.path, 1004, 2);
  EXPECT_EQ(fourth.outcomes, "0" + refusals(2, NO_PLACE));
  std::list<LocalRpcSession> roots;
  for (int i = 0; i < 5; ++i) EXPECT_EQ(roots.emplace_back(options.path, false, false).getFipsMode(), 1);
}

TEST_F(LocalRpcServerRoot, AUserThatClosesItsConnectionsIsServedAgain) {
  options.mode = 0666;
  options.rootOnly = false;
  LocalRpcServer server(agent, options);
  for (int round = 0; round < 3; ++round) {
    const IdleUser user(options.path, 1001, 6);
    EXPECT_EQ(user.outcomes, "5" + refusals(1, TOO_MANY)) << round;
  }
}

TEST_F(LocalRpcServerRoot, AUsersRefusalsAreOneWarning) {
  testsupport::writeFile("/etc/morvand/morvand.conf", "logging.file: /var/morvand/log\n");
  lumo::Logger::ReconfigureLevels(lumo::Props(true, false));
  options.mode = 0666;
  LocalRpcServer server(agent, options);
  const IdleUser first(options.path, 1001, 20);
  const IdleUser second(options.path, 1002, 20);
  std::string log = testsupport::readFile("/var/morvand/log");
  testsupport::writeFile("/etc/morvand/morvand.conf", "");
  lumo::Logger::ReconfigureLevels(lumo::Props(true, false));
  EXPECT_THAT(log, testing::HasSubstr("of user 1001: User 1001 may not talk to the agent"));
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2) << log;
}

TEST_F(LocalRpcServerRoot, ASymbolicLinkAtThePathIsLeftAloneAndNotFollowed) {
  testsupport::writeFile("/var/morvand/elsewhere", "precious");
  ASSERT_EQ(symlink("/var/morvand/elsewhere", "/var/morvand/daemon"), 0);
  EXPECT_THROW(LocalRpcServer(agent, options), lumo::SystemException);
  EXPECT_EQ(testsupport::readFile("/var/morvand/elsewhere"), "precious");
}

}  // namespace
