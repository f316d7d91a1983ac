#include <sys/wait.h>
#include <unistd.h>

#include "base/include/exceptions.h"
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

TEST_F(LocalRpcServerRoot, ASymbolicLinkAtThePathIsLeftAloneAndNotFollowed) {
  testsupport::writeFile("/var/morvand/elsewhere", "precious");
  ASSERT_EQ(symlink("/var/morvand/elsewhere", "/var/morvand/daemon"), 0);
  EXPECT_THROW(LocalRpcServer(agent, options), lumo::SystemException);
  EXPECT_EQ(testsupport::readFile("/var/morvand/elsewhere"), "precious");
}

}  // namespace
