// Passwords of the real tool in the process list, and its limit of core files, while it waits for an agent.
#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "basalt/files/posix_file.h"
#include "cli/tests/tool_host.h"

namespace {

using namespace tooltest;

constexpr char SECRET[] = "s3cretW0rd";

// An agent that takes connections and never answers.
class HangingAgent {
 public:
  HangingAgent() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string("/var/morvand/daemon").copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(address.sun_path);
    EXPECT_EQ(bind(m_listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(m_listener.get(), 4), 0);
  }
  // Waits for a caller, and gives what /proc tells of it; then hangs up on it and on all later ones.
  std::string readOfCaller(const char* file) {
    lumo::FileDescriptor caller(accept(m_listener.get(), nullptr, nullptr));
    ucred who{};
    socklen_t size = sizeof who;
    EXPECT_EQ(getsockopt(caller.get(), SOL_SOCKET, SO_PEERCRED, &who, &size), 0);
    const std::string text = testsupport::readFile("/proc/" + std::to_string(who.pid) + "/" + file);
    m_listener = lumo::FileDescriptor();
    return text;
  }

 private:
  lumo::FileDescriptor m_listener{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

class WaitingTool : public JoinedHost {
 protected:
  static std::string duringWait(const Arguments& arguments, const char* file) {
    HangingAgent agent;
    std::thread running([&arguments] { tool(arguments); });
    const std::string text = agent.readOfCaller(file);
    running.join();
    return text;
  }
};

TEST_F(WaitingTool, ShowsNoPasswordInTheProcessList) {
  const std::string secret = SECRET;
  for (const Arguments& arguments : {Arguments{"-S", "-t", "ntlm", "-p", secret},
                                     {"-S", "-t", "ntlm", "-p" + secret},
                                     {"-S", "-t", "ntlm", "-Vp" + secret},
                                     {"-S", "-t", "ntlm", "--password=" + secret},
                                     {"-S", "-t", "ntlm", "--pass", secret},
                                     {"-S", "-p", secret, "-t", "ntlm", "-p", secret},
                                     {"-S", "-t", "ntlm", "-X", "-p", secret},
                                     {"-S", "-t", "ntlm", "-s", "bob:" + secret + "@h:1"}}) {
    const std::string listed = duringWait(arguments, "cmdline");
    EXPECT_NE(listed.find("ferrogate"), std::string::npos) << joined(arguments);
    EXPECT_EQ(listed.find(secret), std::string::npos) << joined(arguments);
  }
}

TEST_F(WaitingTool, MayWriteNoCore) {
  const std::string limits = duringWait({"-S", "-t", "ntlm"}, "limits");
  EXPECT_NE(limits.find("Max core file size        0                    0"), std::string::npos) << limits;
}

// The process list at the end of a run that is stopped there, before the kernel gives its memory back.
std::string listedAtTheEnd(const Arguments& arguments, uid_t uid = 0) {
  const pid_t child = fork();
  if (child == 0) {
    const std::string program = testsupport::toolPath();
    std::vector<char*> words{const_cast<char*>(program.c_str())};
    for (const auto& word : arguments) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    const int nowhere = open("/dev/null", O_RDWR);
    for (int fd = 0; fd < 3; ++fd) dup2(nowhere, fd);
    setenv("GCOV_PREFIX", "/var/tmp", 1);
    if (uid != 0 && setuid(uid) != 0) _exit(126);
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    execv(words[0], words.data());
    _exit(127);
  }
  std::string listed;
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);  // the new program's first step
  EXPECT_TRUE(WIFSTOPPED(status));
  EXPECT_EQ(ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACEEXIT | PTRACE_O_EXITKILL), 0);
  int signal = 0;
  while (ptrace(PTRACE_CONT, child, nullptr, signal) == 0 && waitpid(child, &status, 0) == child &&
         WIFSTOPPED(status)) {
    const bool ending = status >> 8 == (SIGTRAP | PTRACE_EVENT_EXIT << 8);
    if (ending) listed = testsupport::readFile("/proc/" + std::to_string(child) + "/cmdline");
    signal = ending ? 0 : WSTOPSIG(status);
  }
  EXPECT_TRUE(WIFEXITED(status));
  return listed;
}

TEST_F(WaitingTool, ForgetsAPasswordAlsoWhereItIsRefused) {
  const std::string secret = SECRET;
  const auto expectGone = [&](const Arguments& arguments, uid_t uid) {
    const std::string listed = listedAtTheEnd(arguments, uid);
    EXPECT_NE(listed.find("ferrogate"), std::string::npos) << joined(arguments);
    EXPECT_EQ(listed.find(secret), std::string::npos) << joined(arguments);
  };
  for (const Arguments& arguments :
       {Arguments{"-S", "-p", secret}, {"-L", "-p", secret}, {"-X", "--pass=" + secret}, {"-p", secret}}) {
    expectGone(arguments, 0);
    expectGone(arguments, 65534);
  }
  unlink(KEYTAB);
  expectGone({"-S", "-p", secret}, 0);
}

TEST_F(WaitingTool, PrintsNoPasswordOfAWrongOption) {
  EXPECT_EQ(tool({"-L", "--password=s3cret"}), badOption("unrecognized option '--password=******'"));
  EXPECT_EQ(tool({"--opx=https://u:s3cret@h/"}), badOption("unrecognized option '--opx=******'", "Invalid command."));
}

}  // namespace
