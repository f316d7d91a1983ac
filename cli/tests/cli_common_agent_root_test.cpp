#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include "basalt/files/posix_file.h"
#include "basalt/settings/settings_store.h"
#include "base/include/exceptions.h"
#include "cli/cli_common.h"
#include "cli/tests/configured_host.h"
#include "quill/local_rpc_server.h"

namespace {

using lumo::IPCException;
using lumo::LocalRpcServer;
using lumo::LocalRpcServerOptions;
using lumo::RpcCaller;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char LOCK[] = "/var/run/ferrod.lock";
constexpr char HOST_SID[] = "S-1-5-21-1-2-3-1104";

// Answers with what the test gave it; a missing answer is a failed request.
class Agent : public lumo::LocalRpcHandler {
 public:
  void authenticateProcess(const RpcCaller& caller) override {
    if (refuse) LUMO_THROW(IPCException, -1, "no");
    authenticated = caller.pid;
  }
  ADObjectPtr getUserObj(const RpcCaller&, const std::string& name, lumo::UserLookup lookup) override {
    asked.push_back(name + (lookup == lumo::UNIX_ONLY ? " unix" : " ?"));
    return answer();
  }
  ADObjectPtr ldapFetch(const RpcCaller&, const std::string& base, const std::string& dn,
                        const std::vector<std::string>* attributes, int flags) override {
    asked.push_back("'" + base + "' " + dn + (attributes == nullptr ? " all " : " some ") + std::to_string(flags));
    return answer();
  }
  int getFipsMode(const RpcCaller&) override { return 0; }

  std::function<ADObjectPtr()> answer = []() -> ADObjectPtr { LUMO_THROW(lumo::IOException, -1, "no domain"); };
  bool refuse = false;
  pid_t authenticated = 0;
  std::vector<std::string> asked;
};

ADObjectPtr objectWith(const std::string& attribute, const std::string& value) {
  ADObjectPtr object(new lumo::ADObject("CN=HOST1"));
  object->set(attribute, {value});
  return object;
}

// Holds the agent's lock in a process of its own, as an agent on its way up does.
class LockHolder {
 public:
  LockHolder() {
    int ready[2];
    EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const lumo::FileDescriptor reading(ready[0]);
    lumo::FileDescriptor writing(ready[1]);
    m_pid = fork();
    if (m_pid == 0) {
      const int fd = open(LOCK, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
      if (flock(fd, LOCK_EX | LOCK_NB) != 0) _exit(1);
      [[maybe_unused]] const ssize_t n = write(writing.get(), "r", 1);
      for (;;) pause();
    }
    writing = lumo::FileDescriptor();
    char byte = 0;
    EXPECT_EQ(read(reading.get(), &byte, 1), 1);
  }
  ~LockHolder() {
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
  }
  LockHolder(const LockHolder&) = delete;
  LockHolder& operator=(const LockHolder&) = delete;

 private:
  pid_t m_pid;
};

lumo::FileDescriptor socketAt(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  lumo::FileDescriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  return fd;
}

int openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<int>(std::distance(begin(all), end(all)));
}

class CliCommonAgent : public ConfiguredHost {
 protected:
  void SetUp() override {
    ConfiguredHost::SetUp();
    lumo::saveSetting(SETTING_HOSTSID, HOST_SID);
  }
  // "NUMBER TEXT RUNNING" of the present status.
  static std::string status() {
    const int number = agentStatus();
    return std::to_string(number) + " " + agentStatusText() + (agentRunning(AgentStatus(number)) ? " yes" : " no");
  }
  std::string statusWhenHostIs(const ADObjectPtr& host) {
    agent.answer = [host] { return host; };
    LocalRpcServer server(agent);
    return status();
  }
  Agent agent;
};

TEST_F(CliCommonAgent, ConnectedWhenTheHostsAccountIsInOrder) {
  EXPECT_EQ(statusWhenHostIs(objectWith("userAccountControl", "512")), "0 connected yes");
  EXPECT_EQ(statusWhenHostIs(objectWith("userAccountControl", "4096")), "0 connected yes");
  EXPECT_EQ(statusWhenHostIs(objectWith("cn", "HOST1")), "0 connected yes");
}

TEST_F(CliCommonAgent, AsksForTheHostByItsSidAfterAuthentication) {
  agent.answer = [] { return objectWith("userAccountControl", "512"); };
  LocalRpcServer server(agent);
  EXPECT_EQ(agentStatus(), AgentConnected);
  EXPECT_EQ(agent.authenticated, getpid());
  EXPECT_THAT(agent.asked, ElementsAre(std::string("'' <SID=") + HOST_SID + "> all 0"));
}

TEST_F(CliCommonAgent, DisconnectedWhenTheAccountIsDisabled) {
  EXPECT_EQ(statusWhenHostIs(objectWith("userAccountControl", "514")), "6 disconnected yes");
  EXPECT_EQ(statusWhenHostIs(objectWith("useraccountcontrol", "4098")), "6 disconnected yes");
}

TEST_F(CliCommonAgent, DisconnectedWhenTheHostsObjectIsMissingOrEmpty) {
  EXPECT_EQ(statusWhenHostIs(nullptr), "5 disconnected yes");
  EXPECT_EQ(statusWhenHostIs(ADObjectPtr(new lumo::ADObject("CN=HOST1"))), "5 disconnected yes");
}

TEST_F(CliCommonAgent, DisconnectedWhenARequestFails) {
  LocalRpcServer server(agent);
  EXPECT_EQ(status(), "1 disconnected yes");
  agent.refuse = true;
  EXPECT_EQ(status(), "1 disconnected yes");
}

TEST_F(CliCommonAgent, DisconnectedWhenTheAgentDiesBeforeItAnswers) {
  lumo::FileDescriptor listener = socketAt("/var/morvand/daemon");
  ASSERT_EQ(listen(listener.get(), 4), 0);
  std::thread dying([&] {
    for (int i = 0; i < 2; ++i) lumo::FileDescriptor(accept(listener.get(), nullptr, nullptr));
  });
  EXPECT_EQ(status(), "1 disconnected yes");
  dying.join();
}

TEST_F(CliCommonAgent, DownWhenNobodyServesAndTheLockIsFree) {
  EXPECT_EQ(status(), "3 down no");
  socketAt("/var/morvand/daemon");
  EXPECT_EQ(status(), "3 down no");
}

TEST_F(CliCommonAgent, TheProbeGivesTheLockBackAndLeavesNoDescriptor) {
  const int before = openDescriptors();
  EXPECT_EQ(agentStatus(), AgentDown);
  EXPECT_EQ(openDescriptors(), before);
  {
    const LockHolder starting;
    EXPECT_EQ(agentStatus(), AgentStarting);
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(CliCommonAgent, StartingWhenNobodyServesAndTheLockIsHeld) {
  const LockHolder starting;
  EXPECT_EQ(status(), "2 starting no");
  socketAt("/var/morvand/daemon");
  EXPECT_EQ(status(), "2 starting no");
}

TEST_F(CliCommonAgent, UnavailableWhenTheLockCannotBeProbed) {
  ASSERT_EQ(mkdir(LOCK, 0700), 0);
  EXPECT_EQ(status(), "7 <unavailable> no");
}

TEST_F(CliCommonAgent, UnavailableAfterAnyOtherFailure) {
  agent.answer = [] { return objectWith("userAccountControl", "512"); };
  LocalRpcServer server(agent);
  lumo::saveSetting(SETTING_HOSTSID, "no sid");
  EXPECT_EQ(status(), "4 <unavailable> no");
  testsupport::cleanPrivateHost();
  ASSERT_EQ(symlink("/var/morvand/daemon", "/var/morvand/daemon"), 0);
  EXPECT_EQ(status(), "4 <unavailable> no");
}

TEST_F(CliCommonAgent, UnavailableWhereAnotherUserServesTheSocketAndTheLogSaysSo) {
  ASSERT_EQ(chmod("/var/morvand", 01777), 0);
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t eve = fork();
  if (eve == 0) {
    if (setgid(1001) != 0 || setuid(1001) != 0) _exit(1);
    const lumo::FileDescriptor listening = socketAt("/var/morvand/daemon");
    if (listen(listening.get(), 4) != 0) _exit(1);
    [[maybe_unused]] const ssize_t n = write(ready[1], "r", 1);
    for (;;) pause();
  }
  close(ready[1]);
  char byte = 0;
  EXPECT_EQ(read(ready[0], &byte, 1), 1);
  close(ready[0]);
  configure();
  EXPECT_EQ(agentStatus(), AgentUnknown);
  EXPECT_EQ(GetUserUPN("jdoe"), "");
  kill(eve, SIGKILL);
  waitpid(eve, nullptr, 0);
  const std::string refused =
      "WARN cli.common: Cannot ask the agent: Refused the agent at /var/morvand/daemon: user 1001 serves it, not root; "
      "end that process, remove the socket and start the agent again";
  EXPECT_THAT(records(),
              ElementsAre(refused, refused,
                          "DEBUG cli.common: Failed to get UPN for user 'jdoe', maybe ferrod is not running/not "
                          "available."));
  ASSERT_EQ(chmod("/var/morvand", 0755), 0);
}

TEST_F(CliCommonAgent, SessionComesBeforeTheSetting) {
  lumo::saveSetting(SETTING_HOSTSID, "no sid");
  EXPECT_EQ(status(), "3 down no") << "nobody serves, whatever the setting holds";
  ASSERT_EQ(chmod("/var/morvand/kset", 0777), 0);
  EXPECT_EQ(status(), "3 down no") << "not even where it cannot be read safely";
}

TEST_F(CliCommonAgent, AStatusThatThereIsNotCountsAsUnavailable) {
  for (const int number : {-1, 8, 1000}) EXPECT_FALSE(agentRunning(static_cast<AgentStatus>(number))) << number;
}

TEST_F(CliCommonAgent, TheNameOfAUserIsTheAgents) {
  agent.answer = [] { return objectWith("userPrincipalName", "jdoe@CORP.EXAMPLE.TEST"); };
  LocalRpcServer server(agent);
  EXPECT_EQ(GetUserUPN("jdoe"), "jdoe@CORP.EXAMPLE.TEST");
  EXPECT_EQ(agent.authenticated, getpid());
  EXPECT_THAT(agent.asked, ElementsAre("jdoe unix"));
  EXPECT_THAT(records(), IsEmpty());
}

TEST_F(CliCommonAgent, TheNameOfAnUnknownUserOrOfOneWithoutIsEmpty) {
  LocalRpcServer server(agent);
  agent.answer = [] { return ADObjectPtr(); };
  EXPECT_EQ(GetUserUPN("jdoe"), "");
  agent.answer = [] { return objectWith("cn", "jdoe"); };
  EXPECT_EQ(GetUserUPN("jdoe"), "");
  EXPECT_THAT(records(), IsEmpty());
}

TEST_F(CliCommonAgent, TheNameOfAUserIsAskedForAtTheConfiguredSocket) {
  configure("lumod.socket: /run/agent\n");
  agent.answer = [] { return objectWith("userPrincipalName", "jdoe@corp"); };
  LocalRpcServerOptions options;
  options.path = "/run/agent";
  LocalRpcServer server(agent, options);
  EXPECT_EQ(GetUserUPN("jdoe"), "jdoe@corp");
}

TEST_F(CliCommonAgent, ANameThatCannotBeAskedForIsEmptyAndLogged) {
  const auto record = [](const std::string& user) {
    return "DEBUG cli.common: Failed to get UPN for user '" + user + "', maybe ferrod is not running/not available.";
  };
  EXPECT_EQ(GetUserUPN("jdoe"), "");
  EXPECT_THAT(records(), ElementsAre(record("jdoe")));
  LocalRpcServer server(agent);
  EXPECT_EQ(GetUserUPN("%s%n"), "");
  EXPECT_THAT(records(), ElementsAre(record("jdoe"), record("%s%n")));
}

}  // namespace
