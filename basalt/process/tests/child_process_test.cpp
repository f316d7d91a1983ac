#include "basalt/process/child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "testsupport/in_time.h"
#include "testsupport/temp_folder.h"

using lumo::ArgV;
using testsupport::onceWithin;
using testsupport::readFile;
using testsupport::TempFolder;

namespace {

using Words = std::vector<std::string>;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct SplitCase {
  const char* text;
  Words words;
};

class ArgVSplit : public testing::TestWithParam<SplitCase> {};

TEST_P(ArgVSplit, GivesTheWords) {
  ArgV line(GetParam().text);
  EXPECT_EQ(line.words(), GetParam().words);
  EXPECT_STREQ(line.cmd(), GetParam().words.empty() ? "" : GetParam().words.front().c_str());
  for (std::size_t i = 0; i < GetParam().words.size(); ++i) EXPECT_STREQ(line.argv()[i], GetParam().words[i].c_str());
  EXPECT_EQ(line.argv()[GetParam().words.size()], nullptr);
}

INSTANTIATE_TEST_SUITE_P(Lines, ArgVSplit,
                         testing::Values(SplitCase{"", {}}, SplitCase{" \t\n", {}}, SplitCase{"/bin/a", {"/bin/a"}},
                                         SplitCase{"  /bin/a  b\tc\n", {"/bin/a", "b", "c"}},
                                         SplitCase{"a 'b c' d", {"a", "b c", "d"}},
                                         SplitCase{"a \"b c\" d", {"a", "b c", "d"}}, SplitCase{"a ''", {"a", ""}},
                                         SplitCase{"a\"\"", {"a"}}, SplitCase{"a'b'\"c\"d", {"abcd"}},
                                         SplitCase{R"(a\ b)", {"a b"}}, SplitCase{R"('a\b')", {R"(a\b)"}},
                                         SplitCase{R"("a\"b\\")", {R"(a"b\)"}}, SplitCase{R"(\'a \")", {"'a", "\""}},
                                         SplitCase{"'it''s'", {"its"}}, SplitCase{"\"it's\"", {"it's"}},
                                         SplitCase{"a 'open end ", {"a", "open end "}}, SplitCase{"a \"", {"a", ""}},
                                         SplitCase{R"(a\)", {R"(a\)"}},
                                         SplitCase{"$HOME *; a|b >c", {"$HOME", "*;", "a|b", ">c"}}));

TEST(ArgV, ZeroByteEndsTheLine) { EXPECT_EQ(ArgV(std::string("a b\0c", 5)).words(), (Words{"a", "b"})); }

std::size_t openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

// Every test leaves no child and no descriptor behind.
class Spawn : public testing::Test {
 protected:
  void SetUp() override { m_descriptors = openDescriptors(); }
  void TearDown() override {
    EXPECT_EQ(openDescriptors(), m_descriptors);
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  }

  // The script's output goes to the file "out" of the folder.
  int shell(const std::string& script, int timeout = 20, int newGroup = 1, int resetSignals = 1) {
    const int out = open(folder.file("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const int fds[3] = {-1, out, out};
    std::string copy = script;
    char sh[] = "sh";
    char option[] = "-c";
    char* argv[] = {sh, option, copy.data(), nullptr};
    const auto start = Clock::now();
    errno = 0;
    const int status = spawnfv_time(0, 3, fds, "/bin/sh", argv, timeout, newGroup, resetSignals);
    error = errno;
    took = Clock::now() - start;
    close(out);
    return status;
  }
  std::string output() const { return readFile(folder.file("out")); }

  TempFolder folder;
  int error = 0;
  Clock::duration took{};

 private:
  std::size_t m_descriptors = 0;
};

TEST_F(Spawn, ExitStatus) {
  for (const int code : {0, 3, 127, 255}) {
    const int status = shell("exit " + std::to_string(code));
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), code);
  }
}

TEST_F(Spawn, EndBySignal) {
  const int status = shell("kill -USR1 $$");
  ASSERT_TRUE(WIFSIGNALED(status)) << status;
  EXPECT_EQ(WTERMSIG(status), SIGUSR1);
}

TEST_F(Spawn, StoppedChildIsReportedAndEnded) {
  const int status = shell("kill -STOP $$; echo continued");
  ASSERT_EQ(status & 0xFF, 0x7F) << status;
  EXPECT_EQ(WSTOPSIG(status), SIGSTOP);
  EXPECT_EQ(output(), "");
}

TEST_F(Spawn, StopThatPassesIsNoEnd) {
  const int status = shell("(sleep 0.03; kill -CONT $$) & kill -STOP $$; exit 4");
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 4);
}

TEST_F(Spawn, ArgumentsAndStreamsAreTheGivenOnes) {
  EXPECT_EQ(shell("read line || echo empty input; echo error >&2; echo $0"), 0);
  EXPECT_EQ(output(), "empty input\nerror\nsh\n");
}

TEST_F(Spawn, ReturnsAsSoonAsTheChildEnds) {
  EXPECT_TRUE(onceWithin(milliseconds(900), [&] { EXPECT_EQ(shell("exit 0", -1), 0); }));
}

TEST_F(Spawn, DescriptorsInAnyOrder) {
  int first[2];
  int second[2];
  ASSERT_EQ(pipe2(first, O_CLOEXEC), 0);
  ASSERT_EQ(pipe2(second, O_CLOEXEC), 0);
  ASSERT_EQ(write(first[1], "one\n", 4), 4);
  // 1 and 0 change places: were they put in place one after the other, one would be lost.
  const int saved0 = fcntl(0, F_DUPFD_CLOEXEC, 10);
  const int saved1 = fcntl(1, F_DUPFD_CLOEXEC, 10);
  ASSERT_EQ(dup2(second[1], 0), 0);
  ASSERT_EQ(dup2(first[0], 1), 1);
  const int fds[3] = {1, 0, -1};
  ArgV line("cat");
  const int status = (close(first[1]), spawnfv_time(0, 3, fds, "/bin/cat", line.argv(), 20, 1, 1));
  dup2(saved0, 0);
  dup2(saved1, 1);
  EXPECT_EQ(status, 0);
  char text[8] = {};
  EXPECT_EQ(read(second[0], text, sizeof text), 4);
  EXPECT_STREQ(text, "one\n");
  for (const int fd : {saved0, saved1, first[0], second[0], second[1]}) close(fd);
}

TEST_F(Spawn, NoOtherDescriptorIsInherited) {
  const int low = fcntl(0, F_DUPFD, 50);  // without close-on-exec
  const int high = fcntl(0, F_DUPFD, 200);
  EXPECT_EQ(shell("cd /proc/$$/fd && echo *"), 0);
  close(low);
  close(high);
  // 3 is the folder that the shell reads.
  EXPECT_EQ(output(), "0 1 2 3\n");
}

TEST_F(Spawn, MissingStandardStreamsAreNull) {
  const std::string target = folder.file("seen");
  ArgV line("sh -c 'for f in 0 1 2; do readlink /proc/$$/fd/$f; done > " + target + "'");
  EXPECT_EQ(spawnfv_time(0, 0, nullptr, "/bin/sh", line.argv(), 20, 1, 1), 0);
  EXPECT_EQ(readFile(target), "/dev/null\n" + target + "\n/dev/null\n");
}

TEST_F(Spawn, FailureToStartIsTheReason) {
  struct {
    std::string path;
    int error;
  } const cases[] = {{"/nonexistent/program", ENOENT}, {"/etc/passwd", EACCES}, {folder.path(), EACCES}};
  for (const auto& one : cases) {
    ArgV line("x");
    errno = 0;
    EXPECT_EQ(spawnfv_time(0, 0, nullptr, one.path.c_str(), line.argv(), 20, 1, 1), -1);
    EXPECT_EQ(errno, one.error) << one.path;
  }
}

TEST_F(Spawn, FileThatIsNoProgramIsNoScriptEither) {
  testsupport::writeFile(folder.file("text"), "echo hello\n", 0755);
  ArgV line("x");
  EXPECT_EQ(spawnfv_time(0, 0, nullptr, folder.file("text").c_str(), line.argv(), 20, 1, 1), -1);
  EXPECT_EQ(errno, ENOEXEC);
}

TEST_F(Spawn, ClosedDescriptorIsAnError) {
  const int fds[1] = {999};
  ArgV line("true");
  EXPECT_EQ(spawnfv_time(0, 1, fds, "/bin/true", line.argv(), 20, 1, 1), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(Spawn, TimeOut) {
  EXPECT_TRUE(onceWithin(milliseconds(1800), [&] {
    EXPECT_EQ(shell("exec sleep 30", 1), -1);
    EXPECT_EQ(error, ETIMEDOUT);
    EXPECT_GE(took, milliseconds(1000));
  }));
}

TEST_F(Spawn, NoTimeAtAll) {
  EXPECT_TRUE(onceWithin(milliseconds(900), [&] {
    EXPECT_EQ(shell("exec sleep 30", 0), -1);
    EXPECT_EQ(error, ETIMEDOUT);
  }));
}

TEST_F(Spawn, ChildThatEndsInOrderUponTermIsStillTimedOut) {
  EXPECT_TRUE(onceWithin(milliseconds(1900), [&] {
    EXPECT_EQ(shell("trap 'echo bye; exit 0' TERM; sleep 30 & wait", 1), -1);
    EXPECT_EQ(error, ETIMEDOUT);
    EXPECT_EQ(output(), "bye\n");
  }));
}

TEST_F(Spawn, ChildThatIgnoresTermIsKilledASecondLater) {
  EXPECT_TRUE(onceWithin(milliseconds(3500), [&] {
    EXPECT_EQ(shell("trap '' TERM; while :; do sleep 0.2; done", 1), -1);
    EXPECT_EQ(error, ETIMEDOUT);
    EXPECT_GE(took, milliseconds(2000));
  }));
}

bool runs(const std::string& pid) {
  std::ifstream status("/proc/" + pid + "/stat");
  std::string number;
  std::string name;
  std::string state;
  return status >> number >> name >> state && state != "Z";
}

TEST_F(Spawn, GrandchildrenGoWithATimedOutChild) {
  EXPECT_EQ(shell("sh -c 'trap \"\" TERM; echo $$; exec sleep 30' & wait", 1), -1);
  const std::string pid = output().substr(0, output().find('\n'));
  ASSERT_FALSE(pid.empty());
  const auto deadline = Clock::now() + std::chrono::seconds(20);
  while (runs(pid) && Clock::now() < deadline) usleep(5000);
  EXPECT_FALSE(runs(pid));
}

TEST_F(Spawn, GrandchildThatHoldsTheStreamsDoesNotHoldUs) {
  EXPECT_EQ(shell("sleep 30 & echo $!"), 0);
  EXPECT_LT(took, std::chrono::seconds(20));
  const std::string pid = output().substr(0, output().find('\n'));
  // Its own group is not ended: what the child leaves running is left alone.
  EXPECT_TRUE(runs(pid));
  kill(std::stoi(pid), SIGKILL);
}

TEST_F(Spawn, GroupOfItsOwnOrOurs) {
  const std::string script = "cut -d' ' -f5 < /proc/$$/stat; echo $$";
  EXPECT_EQ(shell(script, 20, 1), 0);
  const std::string own = output();
  EXPECT_EQ(own.substr(0, own.find('\n')), own.substr(own.find('\n') + 1, own.find('\n')));
  EXPECT_EQ(shell(script, 20, 0), 0);
  EXPECT_EQ(output().substr(0, output().find('\n')), std::to_string(getpgrp()));
}

TEST_F(Spawn, TimeOutInOurGroupEndsTheChildAlone) {
  EXPECT_EQ(shell("exec sleep 30", 0, 0), -1);
  EXPECT_EQ(error, ETIMEDOUT);
}

TEST_F(Spawn, SignalsOfTheChild) {
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  sigprocmask(SIG_BLOCK, &blocked, &before);
  const auto handler = signal(SIGUSR2, SIG_IGN);
  // The signals 1 to 28: those from 32 on belong to the C library, whose versions differ in what they do with them.
  const std::string script = "exec sed -nE 's/^(Sig(Blk|Ign)):.*(.{7})$/\\1 \\3/p' < /proc/self/status";
  EXPECT_EQ(shell(script, 20, 1, 1), 0);
  EXPECT_EQ(output(), "SigBlk 0000000\nSigIgn 0000000\n");
  EXPECT_EQ(shell(script, 20, 1, 0), 0);
  EXPECT_EQ(output(), "SigBlk 0000200\nSigIgn 0000800\n");
  signal(SIGUSR2, handler);
  sigprocmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(Spawn, InterruptionsDoNotShortenTheWait) {
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = [](int) {};  // without SA_RESTART
  sigaction(SIGALRM, &action, &before);
  const pid_t parent = getpid();
  EXPECT_EQ(shell("for i in 1 2 3 4 5; do kill -ALRM " + std::to_string(parent) + "; sleep 0.02; done; exit 6") >> 8,
            6);
  sigaction(SIGALRM, &before, nullptr);
}

}  // namespace
