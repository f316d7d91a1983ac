#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <sstream>
#include <thread>

#include "basalt/logging/logging_sinks.h"
#include "base/include/exceptions.h"
#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "testsupport/log_capture.h"
#include "testsupport/temp_folder.h"

using lumo::Logger;
using lumo::oneLine;
using testing::ElementsAre;
using testsupport::LogCapture;
using testsupport::readFile;
using testsupport::TempFolder;

namespace {

constexpr char here[] = "basalt/logging/tests/logging_test.cpp";

TEST(OneLine, NothingForgesALine) {
  EXPECT_EQ(oneLine("plain text"), "plain text");
  EXPECT_EQ(oneLine("one\ntwo\r\nthree\tfour"), "one\\ntwo\\r\\nthree\\tfour");
  EXPECT_EQ(oneLine("\x1b[31mred\x07\x7f"), "\\x1b[31mred\\x07\\x7f");
  EXPECT_EQ(oneLine(std::string("a\0b", 3)), "a\\x00b");
}

TEST(OneLine, NewlinesAtTheEndAreTheLinesOwn) {
  EXPECT_EQ(oneLine("text\n"), "text");
  EXPECT_EQ(oneLine("text\n\n"), "text");
  EXPECT_EQ(oneLine("\n"), "");
  EXPECT_EQ(oneLine(""), "");
}

TEST(OneLine, Utf8StaysAndOtherBytesDoNot) {
  EXPECT_EQ(oneLine("M\xC3\xBCller \xE2\x82\xAC \xF0\x9F\x94\x92"), "M\xC3\xBCller \xE2\x82\xAC \xF0\x9F\x94\x92");
  EXPECT_EQ(oneLine("\xFC"), "\\xfc");
}

TEST(LogFile, WholeLine) {
  const LogCapture log;
  getLogger("cli.ferrogate", false)->log(4, "cli/x.cpp", 12, "main2", "cannot %s %d", "count to", 3);
  EXPECT_THAT(
      readFile(log.path()),
      testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3}[+-][0-9]{2}:?[0-9]{2} " +
                            std::string(program_invocation_short_name) + "\\[" + std::to_string(getpid()) +
                            "\\] ERROR cli[.]ferrogate: cannot count to 3 \\[cli/x[.]cpp:12 main2\\]\n"));
}

TEST(LogFile, MacroTellsThePlaceOfTheCall) {
  const LogCapture log;
  const int line = __LINE__ + 1;
  LUMO_LOG(getLogger("a", true), 1, "text");
  EXPECT_THAT(log.lines(),
              ElementsAre("DEBUG diag.a: text [" + std::string(here) + ":" + std::to_string(line) + " TestBody]"));
}

TEST(LogFile, NamesOfTheLevels) {
  const LogCapture log("TRACE");
  for (int level = -1; level <= 7; ++level) getLogger("a", false)->log(level, "f", 1, "g", "%d", level);
  EXPECT_THAT(log.texts(), ElementsAre("TRACE a: 0", "DEBUG a: 1", "INFO a: 2", "WARN a: 3", "ERROR a: 4", "FATAL a: 5",
                                       "FATAL a: 6", "FATAL a: 7"));
}

TEST(LogFile, TextBecomesOneLine) {
  const LogCapture log;
  LUMO_LOG(getLogger("a", false), 2, "%s", "one\n2026-03-01T09:30:00.123+0100 sshd[1] FATAL forged\n");
  LUMO_LOG(getLogger("b\nc", false), 2, "with its newline\n");
  EXPECT_THAT(log.texts(), ElementsAre("INFO a: one\\n2026-03-01T09:30:00.123+0100 sshd[1] FATAL forged",
                                       "INFO b\\nc: with its newline"));
}

TEST(LogFile, LongRecordStaysWhole) {
  const LogCapture log;
  const std::string longText(1U << 20U, 'x');
  LUMO_LOG(getLogger("a", false), 2, "%s", longText.c_str());
  EXPECT_THAT(log.texts(), ElementsAre("INFO a: " + longText));
}

TEST(LogFile, ThresholdsOfTheLoggers) {
  const TempFolder folder;
  lumo::Properties settings;
  settings.setProperty(lumo::PN::LOG_FILE, folder.file("log"));
  settings.setProperty("log", "error");
  settings.setProperty("log.cloud", "debug");
  settings.setProperty("log.cloud.proxy", "off");
  Logger::ReconfigureLevels(settings);
  for (const char* name : {"base", "cloud", "cloud.object", "cloud.proxy.gss"}) {
    for (int level = 0; level <= 5; ++level) LUMO_LOG(getLogger(name, false), level, "%d", level);
  }
  EXPECT_EQ(getLogger("cloud", false)->threshold(1), 1);
  EXPECT_EQ(getLogger("log", false)->threshold(1), 4);
  Logger::ReconfigureLevels(*std::make_unique<lumo::Properties>());
  std::string seen;
  std::istringstream content(readFile(folder.file("log")));
  for (std::string line; std::getline(content, line);) {
    const std::size_t start = line.find("] ") + 2;
    seen += line.substr(start, line.find(": ", start) - start) + "\n";
  }
  EXPECT_EQ(seen,
            "ERROR base\nFATAL base\n"
            "DEBUG cloud\nINFO cloud\nWARN cloud\nERROR cloud\nFATAL cloud\n"
            "DEBUG cloud.object\nINFO cloud.object\nWARN cloud.object\nERROR cloud.object\nFATAL cloud.object\n");
}

TEST(LogFile, BrokenLevelNamesAreErrorsInTheLog) {
  const TempFolder folder;
  lumo::Properties settings;
  settings.setProperty(lumo::PN::LOG_FILE, folder.file("log"));
  settings.setProperty("log", "LOUD");
  settings.setProperty("log.cloud", "");
  Logger::ReconfigureLevels(settings);
  const std::string content = readFile(folder.file("log"));
  Logger::ReconfigureLevels(*std::make_unique<lumo::Properties>());
  EXPECT_THAT(content, testing::HasSubstr("ERROR base.logger: The setting log is 'LOUD'; it must be one of TRACE, "
                                          "DEBUG, INFO, WARN, ERROR, FATAL and OFF ["));
  EXPECT_THAT(content, testing::HasSubstr("ERROR base.logger: The setting log.cloud is ''; it must be one of "));
}

TEST(LogFile, IsForRootAloneAndAppended) {
  const TempFolder folder;
  const std::string path = folder.file("log");
  const mode_t mask = umask(0);
  for (int i = 0; i < 2; ++i) {
    lumo::Properties settings;
    settings.setProperty(lumo::PN::LOG_FILE, path);
    Logger::ReconfigureLevels(settings);
    LUMO_LOG(getLogger("a", false), 4, "record");
  }
  umask(mask);
  Logger::ReconfigureLevels(*std::make_unique<lumo::Properties>());
  EXPECT_EQ(testsupport::modeOf(path), 0600U);
  const std::string content = readFile(path);
  EXPECT_EQ(std::count(content.begin(), content.end(), '\n'), 2);
}

TEST(LogFile, ErrnoStays) {
  const LogCapture log;
  errno = EDOM;
  LUMO_LOG(getLogger("a", false), 4, "record");
  EXPECT_EQ(errno, EDOM);
}

// A log file that cannot be had: the run goes on, without the second threshold.
class LogFileBad : public testing::Test {
 protected:
  void TearDown() override { Logger::ReconfigureLevels(*std::make_unique<lumo::Properties>()); }

  void configure(const std::string& path) {
    lumo::Properties settings;
    settings.setProperty(lumo::PN::LOG_FILE, path);
    Logger::ReconfigureLevels(settings);
    EXPECT_EQ(getLogger("log", false)->threshold(1), Logger::OFF);
    EXPECT_EQ(getLogger("log", false)->threshold(0), 2);
    LUMO_LOG(getLogger("a", false), 4, "record");
  }
  TempFolder folder;
};

TEST_F(LogFileBad, Link) {
  std::filesystem::create_symlink(folder.file("target"), folder.file("log"));
  configure(folder.file("log"));
  EXPECT_FALSE(testsupport::exists(folder.file("target")));
}
TEST_F(LogFileBad, Folder) { configure(folder.path()); }
TEST_F(LogFileBad, NoFolder) { configure(folder.file("none/log")); }
TEST_F(LogFileBad, RelativePath) {
  configure("relative.log");
  EXPECT_FALSE(testsupport::exists("relative.log"));
}
TEST_F(LogFileBad, PipeThatNobodyReads) {
  ASSERT_EQ(mkfifo(folder.file("log").c_str(), 0600), 0);
  configure(folder.file("log"));
}

TEST(LogFile, RecordsOfManyThreadsAndProcessesStayLines) {
  const LogCapture log;
  const auto writeRecords = [](char letter) {
    const std::string text(300, letter);
    for (int i = 0; i < 200; ++i) LUMO_LOG(getLogger("a", false), 4, "%s", text.c_str());
  };
  const pid_t pid = fork();
  if (pid == 0) {
    writeRecords('c');
    _exit(0);
  }
  std::thread other(writeRecords, 'b');
  writeRecords('a');
  other.join();
  ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
  const auto records = log.texts();
  EXPECT_EQ(records.size(), 600U);
  for (const auto& record : records) {
    ASSERT_EQ(record.size(), 309U);
    ASSERT_EQ(record.find_first_not_of(record[9], 9), std::string::npos) << record;
  }
}

}  // namespace
