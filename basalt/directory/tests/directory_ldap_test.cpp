#include "basalt/directory/directory_ldap.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "basalt/directory/directory_ldap_handles.h"

namespace {

using lumo::triedServersText;

TEST(TriedServers, AreListedWithTheirReasons) {
  EXPECT_EQ(triedServersText("Nobody answers", {{"dc1:389", "Connection refused"}, {"dc2:389", "no answer in time"}}),
            "Nobody answers: dc1:389: Connection refused; dc2:389: no answer in time");
  EXPECT_EQ(triedServersText("Nobody answers", {}), "Nobody answers");
}

TEST(TriedServers, ThatDoNotFitAreCounted) {
  std::vector<lumo::TriedServer> tried(40, {"dc-with-a-name.corp.example.test:389", "Connection refused"});
  const std::string text = triedServersText("Nobody answers", tried);
  EXPECT_LE(text.size(), 511U);
  EXPECT_GT(text.size(), 440U);
  const std::string end = "dc-with-a-name.corp.example.test:389: Connection refused; and 32 more";
  EXPECT_EQ(text.substr(text.size() - end.size()), end);
}

TEST(TriedServers, FillAMessageToItsLastByte) {
  const std::string beginning(400, 'b');
  const std::string first = beginning + ": dc:1: aaaaaa";
  const std::string reason(511 - first.size() - 8, 'r');
  EXPECT_EQ(triedServersText(beginning, {{"dc:1", "aaaaaa"}, {"dc:2", reason}}), first + "; dc:2: " + reason);
  EXPECT_EQ(triedServersText(beginning, {{"dc:1", "aaaaaa"}, {"dc:2", reason + "r"}}), first + "; and 1 more");
}

TEST(TriedServers, LongReasonsAreCut) {
  const std::string text = triedServersText("None", {{"dc:1", std::string(600, 'x')}, {"dc:2", "why"}});
  EXPECT_EQ(text, "None: dc:1: " + std::string(240, 'x') + "...; dc:2: why");
}

TEST(TriedServers, StayWithinAMessageWhateverTheirNames) {
  for (std::size_t size = 0; size < 600; ++size) {
    const std::vector<lumo::TriedServer> tried(3, {std::string(size, 's'), std::string(size, 'r')});
    EXPECT_LE(triedServersText("No directory server answers", tried).size(), 511U) << size;
  }
}

TEST(BrokenPipe, RaisesNoSignal) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  {
    const lumo::NoBrokenPipe guard;
    EXPECT_EQ(write(ends[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
  }
  close(ends[1]);
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

TEST(BrokenPipe, KeepsASignalThatWasThereBefore) {
  sigset_t set;
  sigset_t before;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &set, &before);
  raise(SIGPIPE);
  { const lumo::NoBrokenPipe guard; }
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 1);
  const timespec none{};
  EXPECT_EQ(sigtimedwait(&set, nullptr, &none), SIGPIPE);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace
