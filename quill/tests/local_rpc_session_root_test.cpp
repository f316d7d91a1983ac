// Whom a client trusts as its agent, with servers and clients of real users.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "base/include/exceptions.h"
#include "quill/local_rpc_session.h"
#include "quill/tests/raw_peer.h"
#include "testsupport/failure_of.h"
#include "testsupport/private_host.h"

namespace {

using lumo::LocalRpcSession;
using lumo::SystemException;
using testsupport::wordsOf;

constexpr char PATH[] = "/run/agent/socket";
constexpr uid_t EVE = 1001;
constexpr uid_t BOB = 1002;

// A process of that user that listens at PATH until the object goes.
class Listener {
 public:
  explicit Listener(uid_t uid) {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    m_pid = fork();
    if (m_pid == 0) {
      if (setgid(uid) != 0 || setuid(uid) != 0) _exit(1);
      const lumo::FileDescriptor listening = raw::listenAt(PATH);
      if (chmod(PATH, 0666) != 0) _exit(1);
      [[maybe_unused]] const ssize_t n = ::write(ready[1], "r", 1);
      for (;;) pause();
    }
    close(ready[1]);
    const lumo::FileDescriptor reading(ready[0]);
    char byte = 0;
    EXPECT_EQ(read(reading.get(), &byte, 1), 1);
  }
  ~Listener() {
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

 private:
  pid_t m_pid;
};

std::string outcome(const std::string& path = PATH) {
  return wordsOf<SystemException>([&] { LocalRpcSession(path, false, false); });
}

std::string outcomeAs(uid_t uid) {
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    const bool changed = setgid(uid) == 0 && setuid(uid) == 0;
    const std::string words = changed ? outcome() : "cannot change user";
    [[maybe_unused]] const ssize_t n = ::write(ends[1], words.data(), words.size());
    _exit(0);
  }
  close(ends[1]);
  const lumo::FileDescriptor reading(ends[0]);
  std::string words;
  char buffer[1024];
  for (ssize_t n = 0; (n = read(reading.get(), buffer, sizeof buffer)) > 0;)
    words.append(buffer, static_cast<size_t>(n));
  waitpid(pid, nullptr, 0);
  return words;
}

const std::string EVES = std::string("Refused the agent at ") + PATH +
                         ": user 1001 serves it, not root; end that process, remove the socket and start the agent "
                         "again";
const std::string REFUSED = std::string("Refused the agent at ") + PATH + ": ";

class LocalRpcSessionRoot : public testing::Test {
 protected:
  void SetUp() override {
    testsupport::cleanPrivateHost();
    ASSERT_EQ(mkdir("/run/agent", 0755), 0);
    ASSERT_EQ(chmod("/run/agent", 01777), 0);
  }
};

TEST_F(LocalRpcSessionRoot, RootTalksToAnAgentOfRootsAlone) {
  {
    const Listener eve(EVE);
    EXPECT_EQ(outcome(), EVES);
  }
  unlink(PATH);
  const Listener root(0);
  EXPECT_EQ(outcome(), "nothing thrown");
}

TEST_F(LocalRpcSessionRoot, AUserTalksToAnAgentOfRootsOrItsOwn) {
  {
    const Listener eve(EVE);
    EXPECT_EQ(outcomeAs(BOB), EVES);
    EXPECT_EQ(outcomeAs(EVE), "nothing thrown");
  }
  unlink(PATH);
  const Listener root(0);
  EXPECT_EQ(outcomeAs(BOB), "nothing thrown");
}

TEST_F(LocalRpcSessionRoot, ASocketOfRootsThatAnotherUserPutThereIsRefused) {
  const Listener root(0);
  ASSERT_EQ(chown(PATH, EVE, EVE), 0);
  EXPECT_EQ(outcome(), REFUSED + PATH + " belongs to user 1001, not to root; run: chown root '" + PATH + "'");
  ASSERT_EQ(chown(PATH, 0, 0), 0);
  ASSERT_EQ(symlink(PATH, "/run/agent/link"), 0);
  EXPECT_EQ(outcome("/run/agent/link"),
            "Refused the agent at /run/agent/link: /run/agent/link is not a socket; find out who put it there, and "
            "remove it");
}

TEST_F(LocalRpcSessionRoot, AFolderThatOthersMayWriteToIsRefused) {
  const Listener root(0);
  ASSERT_EQ(chmod("/run/agent", 0777), 0);
  EXPECT_EQ(outcome(), REFUSED +
                           "The folder /run/agent can be written by others than its owner (mode 0777); run: chmod "
                           "go-w '/run/agent'");
  ASSERT_EQ(chmod("/run/agent", 0755), 0);
  ASSERT_EQ(chown("/run/agent", EVE, EVE), 0);
  EXPECT_EQ(outcome(), REFUSED + "/run/agent belongs to user 1001, not to root; run: chown root '/run/agent'");
}

TEST_F(LocalRpcSessionRoot, APathIsShownEscaped) {
  const std::string path = "/run/agent/\x1b[2J";
  const lumo::FileDescriptor listening = raw::listenAt(path);
  ASSERT_EQ(chown(path.c_str(), EVE, EVE), 0);
  EXPECT_EQ(outcome(path).find('\x1b'), std::string::npos) << outcome(path);
}

}  // namespace
