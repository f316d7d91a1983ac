#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#include "basalt/settings/settings_store.h"
#include "cli/cli_common.h"
#include "cli/tests/configured_host.h"

extern char* __progname;

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class CliCommonCaller : public ConfiguredHost {
 protected:
  // Status of rootCheck in a child process of another user; what it says on standard error goes to `said`.
  int checkAs(uid_t user, const char* progname = __progname) {
    getLogger("cli.someone", false);  // the log file is open before the rights go
    testing::internal::CaptureStderr();
    const pid_t pid = fork();
    if (pid == 0) {
      if (user != 0 && (setgid(user) != 0 || setuid(user) != 0)) _exit(99);
      char name[64] = "";
      if (progname != nullptr) strncpy(name, progname, sizeof name - 1);
      __progname = progname == nullptr ? nullptr : name;
      _exit(rootCheck("cli.someone"));
    }
    int status = 0;
    waitpid(pid, &status, 0);
    said = testing::internal::GetCapturedStderr();
    return WEXITSTATUS(status);
  }
  std::string said;
};

TEST_F(CliCommonCaller, RootPassesInSilence) {
  EXPECT_EQ(checkAs(0), 0);
  EXPECT_EQ(said, "");
  EXPECT_THAT(records(), IsEmpty());
}

TEST_F(CliCommonCaller, AnyOtherUserIsRefusedOnStandardErrorAndInTheLog) {
  EXPECT_EQ(checkAs(65534), 9);
  EXPECT_EQ(said, "Error: cli_root_test may only be run by root.\n");
  EXPECT_THAT(records(), ElementsAre("DEBUG cli.someone: Error: cli_root_test may only be run by root."));
}

TEST_F(CliCommonCaller, TheNameIsThatOfTheProgramAsItRuns) {
  EXPECT_EQ(checkAs(65534, "renamed"), 9);
  EXPECT_EQ(said, "Error: renamed may only be run by root.\n");
}

TEST_F(CliCommonCaller, AMissingNameIsTakenFromTheImage) {
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_EQ(checkAs(65534, name), 9);
    EXPECT_EQ(said, "Error: cli_root_test may only be run by root.\n");
  }
}

TEST_F(CliCommonCaller, AJoinedMachineIsTrueInSilence) {
  lumo::saveSetting(SETTING_DOMAIN_NAME, "corp.example.test");
  std::ostringstream out;
  EXPECT_TRUE(machineJoined(getLogger("cli.someone", false), &out));
  EXPECT_EQ(out.str(), "");
  EXPECT_THAT(records(), IsEmpty());
}

TEST_F(CliCommonCaller, AMachineThatIsNotJoinedIsReported) {
  std::ostringstream out;
  EXPECT_FALSE(machineJoined(getLogger("cli.someone", false), &out));
  EXPECT_EQ(out.str(), "Machine is not joined to any domain.\n");
  EXPECT_THAT(records(), ElementsAre("FATAL cli.someone: Machine is not joined to any domain."));
}

TEST_F(CliCommonCaller, WithoutAStreamTheReportIsInTheLogAlone) {
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  EXPECT_FALSE(machineJoined(getLogger("cli.someone", false), nullptr));
  EXPECT_EQ(testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr(), "");
  EXPECT_THAT(records(), ElementsAre("FATAL cli.someone: Machine is not joined to any domain."));
}

TEST_F(CliCommonCaller, AStreamInABadStateIsNotWrittenTo) {
  std::ostringstream out;
  out.setstate(std::ios::failbit);
  EXPECT_FALSE(machineJoined(getLogger("cli.someone", false), &out));
  EXPECT_EQ(out.str(), "");
  EXPECT_TRUE(out.fail());
  EXPECT_THAT(records(), ElementsAre("FATAL cli.someone: Machine is not joined to any domain."));
}

}  // namespace
