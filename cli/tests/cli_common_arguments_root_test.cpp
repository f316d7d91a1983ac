#include <gmock/gmock.h>
#include <unistd.h>

#include "base/include/parameter_names.h"
#include "cli/cli_common.h"
#include "cli/tests/configured_host.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class CliCommonArguments : public ConfiguredHost {
 protected:
  static std::string join(std::vector<std::string> words) {
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    return joinArguments(static_cast<int>(words.size()), argv.data());
  }
  static int validate(const std::string& value) {
    testing::internal::CaptureStderr();
    const int outcome = validateIntValue(value, "--count", "cli.someone");
    said = testing::internal::GetCapturedStderr();
    return outcome;
  }
  static std::string said;
};
std::string CliCommonArguments::said;

TEST_F(CliCommonArguments, IntegersPassWhateverTheirSign) {
  for (const char* value : {"0", "5", "-5", "007", "-007", "-0", "99999999999999999999999999"}) {
    EXPECT_EQ(validate(value), 0) << value;
    EXPECT_EQ(said, "") << value;
  }
  EXPECT_THAT(records(), IsEmpty());
}

TEST_F(CliCommonArguments, AnythingElseIsRefusedWithItsTextAsGiven) {
  for (const std::string value : {"", "-", "--5", "+5", "5-", "5a", "a5", " 5", "5 ", "0x10", "1.5", "-a", "%s"}) {
    configure();
    EXPECT_EQ(validate(value), 7) << value;
    const std::string text = "--count option requires a valid integer value: " + value + " is not allowed";
    EXPECT_EQ(said, text + "\n");
    EXPECT_THAT(records(), ElementsAre("DEBUG cli.someone: " + text));
  }
}

TEST_F(CliCommonArguments, ARefusedValueIsShownEscaped) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(validateIntValue("1\n\x1b[2J", "--count", "cli.someone"), 7);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "--count option requires a valid integer value: 1\\n\\x1b[2J is not allowed\n");
}

TEST_F(CliCommonArguments, JoinedBySingleBlanksBehindTheProgramsName) {
  EXPECT_EQ(join({"tool", "a", "b"}), "a b");
  EXPECT_EQ(join({"tool", "a"}), "a");
  EXPECT_EQ(join({"tool", "a", "", "b"}), "a  b");
}

TEST_F(CliCommonArguments, JoinedOfNothingIsNone) {
  EXPECT_EQ(join({}), "(none)");
  EXPECT_EQ(join({"tool"}), "(none)");
  EXPECT_EQ(join({"tool", ""}), "(none)");
  EXPECT_EQ(join({"tool", "", "", ""}), "(none)");
}

TEST_F(CliCommonArguments, DebugLoggingLowersTheRootLogger) {
  configure("", "WARN");
  lumo::Properties& settings = lumo::Props(false, false);
  ASSERT_FALSE(getLogger("cli.common", false)->isLevelEnabled(2));
  debugLogging();
  EXPECT_EQ(settings.getProperty(lumo::PN::ROOT_LOGGER_NAME), "DEBUG");
  EXPECT_TRUE(settings.dirty());
  EXPECT_TRUE(getLogger("cli.common", false)->isLevelEnabled(1));
  EXPECT_FALSE(getLogger("cli.common", false)->isLevelEnabled(0));
}

TEST_F(CliCommonArguments, DebugLoggingAtTheInformationLevelLowersTheRootLogger) {
  configure("", "INFO");
  debugLogging();
  EXPECT_EQ(lumo::Props(false, false).getProperty(lumo::PN::ROOT_LOGGER_NAME), "DEBUG");
}

TEST_F(CliCommonArguments, DebugLoggingLeavesARootLoggerThatIsThereAlready) {
  for (const char* level : {"debug", "trace"}) {
    configure("", level);
    debugLogging();
    EXPECT_EQ(lumo::Props(false, false).getProperty(lumo::PN::ROOT_LOGGER_NAME), level);
    EXPECT_FALSE(lumo::Props(false, false).dirty());
  }
}

TEST_F(CliCommonArguments, OneThresholdThatIsThereAlreadyIsEnough) {
  configure("", "WARN");
  const auto root = getLogger(lumo::PN::ROOT_LOGGER_NAME, false);
  for (const int sink : {0, 1}) {
    root->setThreshold(sink, 1);
    debugLogging();
    EXPECT_EQ(lumo::Props(false, false).getProperty(lumo::PN::ROOT_LOGGER_NAME), "WARN") << sink;
    root->setThreshold(sink, 3);
  }
}

TEST_F(CliCommonArguments, OnlineProcessorsAreThoseOfTheSystem) {
  EXPECT_EQ(onlineProcessors(), sysconf(_SC_NPROCESSORS_ONLN));
  EXPECT_GE(onlineProcessors(), 1);
}

}  // namespace
