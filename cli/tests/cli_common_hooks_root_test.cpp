#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "cli/cli_common_hooks.h"
#include "cli/tests/configured_host.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char FOLDER[] = "/etc/morvand/hooks";
constexpr char TRACE[] = "/var/morvand/trace";

class PostCommandHookTest : public ConfiguredHost {
 protected:
  void SetUp() override {
    ConfiguredHost::SetUp();
    ASSERT_EQ(mkdir(FOLDER, 0755), 0);
  }
  static std::string script(const std::string& name, const std::string& body, unsigned mode = 0755) {
    const std::string path = std::string(FOLDER) + "/" + name;
    testsupport::writeFile(path, body, mode);
    return path;
  }
  // A program that writes its name and arguments down, each in brackets.
  static std::string tracer(const std::string& name) {
    return script(name, std::string("#!/bin/sh\nprintf '[%s]' \"${0##*/}\" \"$@\" >> ") + TRACE + "\n");
  }
  static std::string trace() { return testsupport::exists(TRACE) ? testsupport::readFile(TRACE) : ""; }

  // A command of that outcome, with the hooks that are configured for "join".
  static int command(int status, bool verbose, const std::list<std::string>& extra = {}) {
    PostCommandHook hook("join", extra, logger(), verbose);
    hook.setSuccess(status);
    return status;
  }
  static boost::shared_ptr<lumo::Logger> logger() { return getLogger("cli.someone", false); }
  // Standard error while a single command line runs.
  static std::string said(const std::string& commandLine, bool verbose = true) {
    PostCommandHook hook("join", logger(), verbose);
    testing::internal::CaptureStderr();
    hook.runCommand(commandLine);
    return testing::internal::GetCapturedStderr();
  }
  static std::string refusal(const std::string& commandLine) {
    return "Security check failed and Post-command-hook " + commandLine + " will not be executed.\n";
  }
  static std::string started(const std::string& program) {
    return "Started executing Post-command-hook " + program + "\n";
  }
};

TEST_F(PostCommandHookTest, AHookThatExitsIsReportedWithItsStatusOnStandardErrorAndInTheLog) {
  const std::string hook = script("three", "#!/bin/sh\necho working >&2\nexit 3\n");
  configure("cli.hook.join: " + hook + "\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(command(0, true), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            started(hook) + "working\n" + "Post-command-hook " + hook + " exits with 3.\n");
  EXPECT_THAT(records(), ElementsAre("DEBUG cli.someone: Started executing Post-command-hook " + hook,
                                     "DEBUG cli.someone: Post-command-hook " + hook + " exits with 3."));
}

TEST_F(PostCommandHookTest, WithoutVerboseTheReportIsInTheLogAlone) {
  const std::string hook = script("zero", "#!/bin/sh\necho working >&2\n");
  EXPECT_EQ(said(hook, false), "working\n");
  EXPECT_EQ(said("/nowhere", false), "");
  EXPECT_THAT(records(),
              ElementsAre("DEBUG cli.someone: Started executing Post-command-hook " + hook,
                          "DEBUG cli.someone: Post-command-hook " + hook + " exits with 0.",
                          "DEBUG cli.someone: Security check failed and Post-command-hook /nowhere will not be "
                          "executed."));
}

TEST_F(PostCommandHookTest, AHookThatASignalEndsIsReportedWithTheSignal) {
  const std::string hook = script("killed", "#!/bin/sh\nkill -9 $$\n");
  EXPECT_EQ(said(hook), started(hook) + "Post-command-hook " + hook + " terminated by signal 9.\n");
}

TEST_F(PostCommandHookTest, AHookThatStopsIsReportedWithTheSignal) {
  const std::string hook = script("stopped", "#!/bin/sh\nkill -STOP $$\n");
  EXPECT_EQ(said(hook), started(hook) + "Post-command-hook " + hook + " stopped by signal 19.\n");
}

TEST_F(PostCommandHookTest, AHookThatTakesTooLongIsEnded) {
  configure("cli.hook.timeout: 1\n");
  const std::string hook = script("slow", "#!/bin/sh\nexec sleep 600\n");
  EXPECT_EQ(said(hook), started(hook) + "Post-command-hook " + hook + " execute timed out.\n");
}

TEST_F(PostCommandHookTest, AHookWithoutALimitEndsInItsOwnTime) {
  configure("cli.hook.timeout: -7\n");
  const std::string hook = script("quick", "#!/bin/sh\nexit 4\n");
  EXPECT_EQ(said(hook), started(hook) + "Post-command-hook " + hook + " exits with 4.\n");
}

TEST_F(PostCommandHookTest, AProgramThatCannotBeStartedIsReportedWithTheReason) {
  const std::string noInterpreter = script("orphan", "#!/nowhere/interpreter\n");
  EXPECT_EQ(said(noInterpreter + " -x"),
            started(noInterpreter) + "Cannot execute " + noInterpreter + ": No such file or directory\n");
  const std::string noFormat = script("noformat", "just text\n");
  EXPECT_EQ(said(noFormat), started(noFormat) + "Cannot execute " + noFormat + ": Exec format error\n");
}

TEST_F(PostCommandHookTest, UnsafeProgramsAreNotRun) {
  const std::string body = std::string("#!/bin/sh\necho run > ") + TRACE + "\n";
  const std::string worldWritable = script("world", body, 0777) + " -a 'b c'";
  EXPECT_EQ(said(worldWritable), refusal(worldWritable));
  const std::string groupWritable = script("group", body, 0775);
  EXPECT_EQ(said(groupWritable), refusal(groupWritable));
  const std::string foreign = script("foreign", body);
  ASSERT_EQ(chown(foreign.c_str(), 65534, 0), 0);
  EXPECT_EQ(said(foreign), refusal(foreign));
  const std::string notExecutable = script("plain", body, 0644);
  EXPECT_EQ(said(notExecutable), refusal(notExecutable));
  const std::string link = std::string(FOLDER) + "/link";
  ASSERT_EQ(symlink(script("target", body).c_str(), link.c_str()), 0);
  EXPECT_EQ(said(link), refusal(link));
  EXPECT_EQ(said("/etc/morvand/hooks/missing -x"), refusal("/etc/morvand/hooks/missing -x"));
  EXPECT_EQ(said("sh -c true"), refusal("sh -c true"));
  EXPECT_EQ(said(FOLDER), refusal(FOLDER));
  EXPECT_EQ(said("   "), refusal("   "));
  EXPECT_EQ(trace(), "");
}

TEST_F(PostCommandHookTest, AProgramInAnUnsafeFolderIsNotRun) {
  const std::string hook = tracer("safe");
  ASSERT_EQ(chmod(FOLDER, 0777), 0);
  EXPECT_EQ(said(hook), refusal(hook));
  ASSERT_EQ(chmod(FOLDER, 0755), 0);
  ASSERT_EQ(chown(FOLDER, 65534, 0), 0);
  EXPECT_EQ(said(hook), refusal(hook));
  EXPECT_EQ(trace(), "");
}

TEST_F(PostCommandHookTest, ArgumentsAreSplitAsQuoted) {
  const std::string hook = tracer("args");
  EXPECT_EQ(said(hook + " one 'two  words' \"three \\\" $HOME\" four\\ five ''"),
            started(hook) + "Post-command-hook " + hook + " exits with 0.\n");
  EXPECT_EQ(trace(), "[args][one][two  words][three \" $HOME][four five][]");
}

TEST_F(PostCommandHookTest, NothingRunsUnlessTheCommandSucceeded) {
  configure("cli.hook.join: " + tracer("hook") + "\n");
  testing::internal::CaptureStderr();
  { const PostCommandHook neverTold("join", {tracer("extra")}, logger(), true); }
  EXPECT_EQ(command(9, true, {tracer("extra")}), 9);
  EXPECT_EQ(command(-1, true), -1);
  {
    PostCommandHook changed("join", logger(), true);
    changed.setSuccess(0);
    changed.setSuccess(1);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(trace(), "");
  EXPECT_THAT(records(), IsEmpty());
}

TEST_F(PostCommandHookTest, ExtraCommandsComeFirstInTheirOrderThenTheConfiguredOne) {
  configure("cli.hook.join: " + tracer("hook") + " -h\n");
  command(0, false, {tracer("b") + " 1", "", tracer("a"), tracer("b") + " 1"});
  EXPECT_EQ(trace(), "[b][1][a][b][1][hook][-h]");
}

TEST_F(PostCommandHookTest, AFailingHookDoesNotKeepTheNextOneFromRunning) {
  command(0, false, {"/nowhere", script("fails", "#!/bin/sh\nexit 1\n"), tracer("last")});
  EXPECT_EQ(trace(), "[last]");
}

TEST_F(PostCommandHookTest, AConfiguredLineThatIsListedRunsOnceInTheCreatorsPlace) {
  const std::string same = tracer("same") + " -x";
  configure("cli.hook.join: " + same + "\n");
  command(0, false, {same, tracer("other")});
  EXPECT_EQ(trace(), "[same][-x][other]");
}

TEST_F(PostCommandHookTest, OnlyTheSettingOfTheCommandsOwnNameCounts) {
  configure("cli.hook.leave: " + tracer("leave") + "\ncli.hook.joined: " + tracer("joined") + "\n");
  command(0, false);
  EXPECT_EQ(trace(), "");
}

TEST_F(PostCommandHookTest, AnEmptyCommandLineIsPassedOverInSilence) {
  EXPECT_EQ(said(""), "");
  EXPECT_THAT(records(), IsEmpty());
}

TEST_F(PostCommandHookTest, ACommandLineIsShownEscaped) {
  testing::internal::CaptureStderr();
  PostCommandHook("join", logger(), true).runCommand("/nowhere/\x1b[2J\nforged");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Security check failed and Post-command-hook /nowhere/\\x1b[2J\\nforged will not be executed.\n");
}

TEST_F(PostCommandHookTest, TheHookHasTheCommandsStreams) {
  const std::string hook = script("talks", "#!/bin/sh\necho out; echo err >&2\n");
  PostCommandHook post("join", logger(), false);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  std::cout << "first\n";
  post.runCommand(hook);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "first\nout\n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "err\n");
}

TEST_F(PostCommandHookTest, TheHookLeadsAProcessGroupOfItsOwn) {
  // proc(5): the first and the fifth word are the process and its group.
  const std::string hook = script("group", std::string("#!/bin/sh\nread -r pid name state parent group rest < "
                                                       "/proc/$$/stat\n[ \"$pid\" = \"$group\" ] && echo own > ") +
                                               TRACE + "\n");
  said(hook, false);
  EXPECT_EQ(trace(), "own\n");
}

TEST_F(PostCommandHookTest, TheHookBeginsWithoutTheCommandsSignals) {
  const auto before = std::signal(SIGPIPE, SIG_IGN);
  sigset_t blocked;
  sigset_t old;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &blocked, &old);
  // The masks as proc(5) has them: bit 0 is signal 1. Of others the C library may keep some for itself.
  said(script("signals", std::string("#!/bin/sh\nwhile read -r name mask; do case $name in SigBlk: | SigIgn:) echo "
                                     "$mask ;; esac; done < /proc/self/status > ") +
                             TRACE + "\n"),
       false);
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  std::signal(SIGPIPE, before);
  std::istringstream masks(trace());
  unsigned long blockedThere = ~0UL;
  unsigned long ignoredThere = ~0UL;
  masks >> std::hex >> blockedThere >> ignoredThere;
  EXPECT_EQ(blockedThere & 1UL << (SIGUSR1 - 1), 0U) << trace();
  EXPECT_EQ(ignoredThere & 1UL << (SIGPIPE - 1), 0U) << trace();
}

TEST_F(PostCommandHookTest, TheHookGetsNoForeignVariableAndASearchPathOfTheSystem) {
  const std::string path = std::getenv("PATH");
  setenv("PATH", "/var/tmp/of-the-caller", 1);
  setenv("KRB5_TRACE", "/var/tmp/x", 1);
  said(script("variables", std::string("#!/bin/sh\necho \"$PATH ${KRB5_TRACE-unset}\" > ") + TRACE + "\n"), false);
  setenv("PATH", path.c_str(), 1);
  unsetenv("KRB5_TRACE");
  EXPECT_EQ(trace(), "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin unset\n");
}

TEST_F(PostCommandHookTest, TheTimeLimitIsThatOfTheSetting) {
  const std::vector<std::pair<std::string, int>> rows{{"", 30},
                                                      {"7", 7},
                                                      {"0", 0},
                                                      {"-7", -1},
                                                      {"-1", -1},
                                                      {"12 s", 12},
                                                      {"x", 0},
                                                      {"+5", 5},
                                                      {"2147483647", 2147483647},
                                                      {"-99999999999999999999", -1},
                                                      {"99999999999999999999", 2147483647}};
  EXPECT_EQ(PostCommandHook("join", logger(), false).timeout(), 30);
  for (const auto& [value, seconds] : rows) {
    configure("cli.hook.timeout: " + value + "\n");
    EXPECT_EQ(PostCommandHook("join", logger(), false).timeout(), seconds) << value;
  }
}

TEST_F(PostCommandHookTest, ATimeLimitThatIsNoNumberIsAWarningInTheLog) {
  configure("cli.hook.timeout: soon\n");
  PostCommandHook("join", logger(), true);
  EXPECT_THAT(records(), ElementsAre("WARN cli.someone: The value 'soon' of cli.hook.timeout is no number of seconds: "
                                     "it counts as 0."));
}

class CommandOutputReaderTest : public ConfiguredHost {
 protected:
  // What `input` becomes on standard output and on standard error.
  static std::pair<std::string, std::string> relayed(int mode, bool show, const std::string& text = "a\n%s\n") {
    std::istringstream input(text);
    CommandOutputReader reader(getLogger("cli.someone", false), static_cast<ConsoleMode>(mode), input);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    reader.output(show);
    EXPECT_TRUE(input.good());
    const std::string out = testing::internal::GetCapturedStdout();
    return {out, testing::internal::GetCapturedStderr()};
  }
  using Streams = std::pair<std::string, std::string>;
};

TEST_F(CommandOutputReaderTest, WritesWhereItsModeSays) {
  EXPECT_EQ(relayed(0, false), Streams("", ""));
  EXPECT_EQ(relayed(0, true), Streams("", "a\n%s\n"));
  for (const bool show : {false, true}) {
    EXPECT_EQ(relayed(1, show), Streams("a\n%s\n", ""));
    EXPECT_EQ(relayed(2, show), Streams("", "a\n%s\n"));
    EXPECT_EQ(relayed(3, show), Streams("", "a\n%s\n"));
  }
}

TEST_F(CommandOutputReaderTest, LogsEveryLineAtItsModesLevel) {
  for (const int mode : {0, 1, 2, 3}) {
    configure();
    relayed(mode, false);
    const std::string start = std::string(mode == 3 ? "WARN" : "DEBUG") + " cli.someone: ";
    EXPECT_THAT(records(), ElementsAre(start + "a", start + "%s")) << mode;
  }
}

TEST_F(CommandOutputReaderTest, EscapesWhatCouldActOnATerminal) {
  EXPECT_EQ(relayed(1, false, "a\x1b[2J\r\nb\x07"), Streams("a\\x1b[2J\\r\nb\\x07\n", ""));
}

TEST_F(CommandOutputReaderTest, KeepsEmptyLinesAndTheLastOneWithoutANewline) {
  EXPECT_EQ(relayed(1, false, "\n\nlast"), Streams("\n\nlast\n", ""));
  EXPECT_EQ(relayed(1, false, ""), Streams("", ""));
}

}  // namespace
