#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <set>

#include "base/include/exceptions.h"
#include "base/include/properties.h"
#include "testsupport/failure_of.h"
#include "testsupport/log_capture.h"
#include "testsupport/temp_folder.h"

using lumo::Properties;
using testsupport::namesIn;
using testsupport::readFile;
using testsupport::TempFolder;
using testsupport::wordsOf;
using testsupport::writeFile;

namespace {

class PropertiesFile : public testing::Test {
 protected:
  TempFolder folder;
  const std::string file = folder.file("test.conf");
};

TEST_F(PropertiesFile, MissingFileIsAnEmptyOne) {
  Properties settings;
  settings.setProperty("old", "1");
  settings.loadFile(file);
  EXPECT_EQ(settings.getProperty("old"), "");
  EXPECT_FALSE(settings.dirty());
}

TEST_F(PropertiesFile, LoadForgetsWhatWasThere) {
  writeFile(file, "a: yes\n");
  Properties settings;
  settings.setProperty("a", "no");
  EXPECT_FALSE(settings.getBool("a", true));
  settings.loadFile(file);
  EXPECT_TRUE(settings.getBool("a", false));
}

TEST_F(PropertiesFile, BadLinesAreErrorsInTheLog) {
  writeFile(file, "a: 1\nnonsense\n\x1b[2J\nb: 2\n");
  const testsupport::LogCapture log;
  Properties settings;
  settings.loadFile(file);
  EXPECT_EQ(settings.getProperty("b"), "2");
  EXPECT_THAT(log.texts(),
              testing::ElementsAre("ERROR base.properties: " + file + " line 2 is not a setting (key: value)",
                                   "ERROR base.properties: " + file + " line 3 is not a setting (key: value)"));
}

TEST_F(PropertiesFile, ManyBadLinesMakeFewRecords) {
  std::string noise;
  for (int i = 0; i < 1000; ++i) noise += "noise\n";
  writeFile(file, noise);
  const testsupport::LogCapture log;
  Properties().loadFile(file);
  const auto records = log.texts();
  ASSERT_EQ(records.size(), 21U);
  EXPECT_EQ(records.back(), "ERROR base.properties: " + file + " has 980 more lines that are not settings");
}

TEST_F(PropertiesFile, FileThatOthersMayWriteIsAnErrorInTheLog) {
  writeFile(file, "a: 1\n", 0666);
  const testsupport::LogCapture log;
  Properties().loadFile(file);
  EXPECT_THAT(log.texts(), testing::ElementsAre("ERROR base.properties: " + file +
                                                " can be written by others than root; run: chown root '" + file +
                                                "'; chmod go-w '" + file + "'"));
}

TEST_F(PropertiesFile, FolderThatOthersMayWriteIsAWarningInTheLogAlsoWithoutAFile) {
  writeFile(file, "a: 1\n");
  const std::string open = folder.file("open");
  std::filesystem::create_directory(open);
  testsupport::LogCapture log;
  for (const unsigned mode : {0770U, 0707U}) {
    ASSERT_EQ(chmod(open.c_str(), mode), 0);
    Properties().loadFile(open + "/test.conf");
    EXPECT_THAT(
        log.newTexts("base.properties"),
        testing::ElementsAre("WARN The folder " + open + " can be written by others than root; run: chown root '" +
                             open + "'; chmod go-w '" + open + "'"));
  }
  for (const unsigned mode : {0755U, 0700U, 01777U}) {
    ASSERT_EQ(chmod(open.c_str(), mode), 0);
    Properties().loadFile(open + "/test.conf");
    EXPECT_THAT(log.newTexts("base.properties"), testing::IsEmpty()) << mode;
  }
}

TEST_F(PropertiesFile, KeyWithAnEqualsSignIsAWarningInTheLog) {
  writeFile(file, "a: 1\nferrod.cloud.proxy.server = proxy:3128\n# c = d: e\nb: x=y\nc=: 2\n");
  const testsupport::LogCapture log;
  Properties settings;
  settings.loadFile(file);
  EXPECT_EQ(settings.getProperty("b"), "x=y");
  const std::string end = " has a key with \"=\" in it; a setting is written as key: value";
  EXPECT_THAT(log.texts(), testing::ElementsAre("WARN base.properties: " + file + " line 2" + end,
                                                "WARN base.properties: " + file + " line 5" + end));
}

TEST_F(PropertiesFile, ManyKeysWithAnEqualsSignMakeFewRecords) {
  std::string odd;
  for (int i = 0; i < 1000; ++i) odd += "k" + std::to_string(i) + " = a: 1\n";
  writeFile(file, odd);
  const testsupport::LogCapture log;
  Properties().loadFile(file);
  const auto records = log.texts();
  ASSERT_EQ(records.size(), 21U);
  EXPECT_EQ(records.back(), "WARN base.properties: " + file + " has 980 more keys with \"=\" in them");
}

TEST_F(PropertiesFile, SaveChangesOnlyWhatChanged) {
  writeFile(file, "# comment\nfirst: 1\nunknown line\n\nsecond: 2\nthird: 3\n");
  Properties settings;
  settings.loadFile(file);
  settings.setProperty("SECOND", "two");
  settings.setProperty("first", "1");
  settings.eraseProperty("third");
  settings.setProperty("fourth", "4");
  settings.saveProperty(file);
  EXPECT_EQ(readFile(file), "# comment\nfirst: 1\nunknown line\n\nsecond: two\nfourth: 4\n");
  EXPECT_FALSE(settings.dirty());
  EXPECT_EQ(namesIn(folder.path()), (std::set<std::string>{"test.conf", ".test.conf.lock"}));
}

TEST_F(PropertiesFile, SaveKeepsWhatSomebodyElseWroteMeanwhile) {
  writeFile(file, "a: 1\nb: 2\n");
  Properties settings;
  settings.loadFile(file);
  writeFile(file, "# edited\na: 1\nb: changed\nc: new\n");
  settings.setProperty("a", "mine");
  settings.saveProperty(file);
  EXPECT_EQ(readFile(file), "# edited\na: mine\nb: changed\nc: new\n");
}

TEST_F(PropertiesFile, SecondSaveWritesOnlyWhatChangedSinceTheFirst) {
  writeFile(file, "a: 1\n");
  Properties settings;
  settings.loadFile(file);
  settings.setProperty("a", "2");
  settings.saveProperty(file);
  writeFile(file, "a: by hand\n");
  settings.setProperty("b", "3");
  settings.saveProperty(file);
  EXPECT_EQ(readFile(file), "a: by hand\nb: 3\n");
}

TEST_F(PropertiesFile, SaveWithoutChangesTouchesNothing) {
  writeFile(file, "a: 1\n");
  Properties settings;
  settings.loadFile(file);
  settings.setProperty("a", "1");
  EXPECT_TRUE(settings.dirty());
  struct stat before {};
  ASSERT_EQ(stat(file.c_str(), &before), 0);
  settings.saveProperty(file);
  EXPECT_FALSE(settings.dirty());
  struct stat after {};
  ASSERT_EQ(stat(file.c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(namesIn(folder.path()), std::set<std::string>{"test.conf"});
}

TEST_F(PropertiesFile, NewFileCanBeReadByAll) {
  const mode_t mask = umask(0077);
  Properties settings;
  settings.setProperty("a", "1");
  settings.saveProperty(file);
  umask(mask);
  EXPECT_EQ(readFile(file), "a: 1\n");
  EXPECT_EQ(testsupport::modeOf(file), 0644U);
  EXPECT_EQ(testsupport::modeOf(folder.file(".test.conf.lock")), 0600U);
}

TEST_F(PropertiesFile, ModeStays) {
  for (const unsigned mode : {0600U, 0640U, 0444U, 0755U}) {
    writeFile(file, "a: 1\n", mode);
    Properties settings;
    settings.loadFile(file);
    settings.setProperty("a", "2");
    settings.saveProperty(file);
    EXPECT_EQ(testsupport::modeOf(file), mode);
    std::filesystem::remove(file);
  }
}

TEST_F(PropertiesFile, ValueThatIsNoLineIsRefusedAndTheFileStays) {
  writeFile(file, "a: 1\n");
  Properties settings;
  settings.loadFile(file);
  settings.setProperty("a", "1\nferrod.cloud.skip.cert.verification: true");
  EXPECT_THROW(settings.saveProperty(file), lumo::BadDataException);
  EXPECT_EQ(readFile(file), "a: 1\n");
  EXPECT_TRUE(settings.dirty());
}

TEST_F(PropertiesFile, WhatCouldNotBeReadBackIsNotWritten) {
  const std::string full = "#" + std::string((1U << 20U) - 7, 'x') + "\na: 1\n";
  ASSERT_EQ(full.size(), 1U << 20U);
  writeFile(file, full);
  Properties settings;
  settings.loadFile(file);
  settings.setProperty("a", "22");
  EXPECT_EQ(wordsOf<lumo::SystemException>([&] { settings.saveProperty(file); }),
            "Cannot write " + file + ": it would be larger than 1048576 bytes");
  EXPECT_EQ(readFile(file), full);
  settings.setProperty("a", "2");
  settings.saveProperty(file);
  settings.loadFile(file);
  EXPECT_EQ(settings.getProperty("a"), "2");
}

TEST_F(PropertiesFile, NoFolderIsAnError) {
  Properties settings;
  settings.setProperty("a", "1");
  const std::string path = folder.file("none/test.conf");
  EXPECT_EQ(wordsOf<lumo::SystemException>([&] { settings.saveProperty(path); }),
            "Cannot lock " + folder.file("none/.test.conf.lock") + ": No such file or directory");
  EXPECT_TRUE(settings.dirty());
}

// What may stand in place of the file, and the words for it.
TEST_F(PropertiesFile, FolderInItsPlaceIsAnError) {
  std::filesystem::create_directory(file);
  Properties settings;
  EXPECT_EQ(wordsOf<lumo::SystemException>([&] { settings.loadFile(file); }),
            "Cannot read " + file + ": it is not a regular file");
  settings.setProperty("a", "1");
  EXPECT_EQ(wordsOf<lumo::SystemException>([&] { settings.saveProperty(file); }),
            "Cannot read " + file + ": it is not a regular file");
}

TEST_F(PropertiesFile, PipeInItsPlaceIsAnErrorAndNoWait) {
  ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
  Properties settings;
  EXPECT_EQ(wordsOf<lumo::SystemException>([&] { settings.loadFile(file); }),
            "Cannot read " + file + ": it is not a regular file");
  settings.setProperty("a", "1");
  EXPECT_EQ(wordsOf<lumo::SystemException>([&] { settings.saveProperty(file); }),
            "Cannot read " + file + ": it is not a regular file");
}

TEST_F(PropertiesFile, LinkInItsPlaceIsAnErrorAndNotFollowed) {
  const std::string target = folder.file("target");
  writeFile(target, "a: 1\n");
  std::filesystem::create_symlink(target, file);
  Properties settings;
  EXPECT_EQ(wordsOf<lumo::SystemException>([&] { settings.loadFile(file); }),
            "Cannot read " + file + ": it is a symbolic link");
  settings.setProperty("a", "2");
  EXPECT_EQ(wordsOf<lumo::SystemException>([&] { settings.saveProperty(file); }),
            "Cannot read " + file + ": it is a symbolic link");
  EXPECT_EQ(readFile(target), "a: 1\n");
}

TEST_F(PropertiesFile, LinkInPlaceOfTheLockIsAnError) {
  const std::string lock = folder.file(".test.conf.lock");
  std::filesystem::create_symlink(folder.file("elsewhere"), lock);
  Properties settings;
  settings.setProperty("a", "1");
  EXPECT_EQ(wordsOf<lumo::SystemException>([&] { settings.saveProperty(file); }),
            "Cannot lock " + lock + ": it is a symbolic link");
  EXPECT_FALSE(testsupport::exists(folder.file("elsewhere")));
}

TEST_F(PropertiesFile, TenMegabytesAreRefusedInBoundedTimeAndMemory) {
  std::string noise(10U << 20U, '\0');
  for (std::size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<char>((i * 2654435761U) >> 13U);
  writeFile(file, noise);
  noise = std::string();
  rusage before{};
  getrusage(RUSAGE_SELF, &before);
  const std::clock_t start = std::clock();  // the processor's, whatever else the machine has to do
  Properties settings;
  EXPECT_EQ(wordsOf<lumo::SystemException>([&] { settings.loadFile(file); }),
            "Cannot read " + file + ": it is larger than 1048576 bytes");
  rusage after{};
  getrusage(RUSAGE_SELF, &after);
  EXPECT_LT(std::clock() - start, 2 * CLOCKS_PER_SEC);
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 8 * 1024);
}

// Processor seconds for reading a file of as many bytes of settings, changing one and writing it back.
double secondsForSettings(const std::string& path, std::size_t size) {
  std::string text;
  for (int i = 0; text.size() < size - 32; ++i) text += std::to_string(i) + ":\n";
  writeFile(path, text);
  const std::clock_t start = std::clock();
  Properties settings;
  settings.loadFile(path);
  settings.setProperty("77", "x");
  settings.saveProperty(path);
  const std::clock_t end = std::clock();
  EXPECT_EQ(readFile(path), text.replace(text.find("\n77:\n"), 5, "\n77: x\n"));
  return static_cast<double>(end - start) / CLOCKS_PER_SEC;
}

TEST_F(PropertiesFile, FullMegabyteOfSettingsIsReadAndMergedInTimeThatGrowsWithItsSize) {
  const double quarter = secondsForSettings(file, 1U << 18U);
  const double full = secondsForSettings(file, 1U << 20U);
  // Four times the settings; sixteen times the work would be a loop in a loop.
  EXPECT_LT(full, 9 * quarter);
}

struct TimeCase {
  const char* value;
  char unit;
  long expected;
};

class PropertiesTime : public testing::TestWithParam<TimeCase> {};

TEST_P(PropertiesTime, InSeconds) {
  Properties settings;
  settings.setProperty("time", GetParam().value);
  EXPECT_EQ(settings.getTime("TIME", GetParam().unit, 8), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Values, PropertiesTime,
    testing::Values(TimeCase{"5", 's', 5}, TimeCase{"5", 'm', 300}, TimeCase{"5", 'h', 18000},
                    TimeCase{"5", 'd', 432000}, TimeCase{"5s", 'h', 5}, TimeCase{"5m", 'h', 300},
                    TimeCase{"5h", 's', 18000}, TimeCase{"2d", 's', 172800}, TimeCase{" 7 m ", 's', 420},
                    TimeCase{"0", 'h', 0}, TimeCase{"007", 's', 7}, TimeCase{"", 'h', 28800}, TimeCase{"m", 'h', 28800},
                    TimeCase{"5x", 'h', 28800}, TimeCase{"-5", 'm', 480}, TimeCase{"5.5h", 'm', 480},
                    TimeCase{"five", 's', 8}, TimeCase{"5H", 's', 8}, TimeCase{"99999999999999999999", 's', 8},
                    TimeCase{"9223372036854775807", 's', 9223372036854775807L},
                    TimeCase{"9223372036854775807", 'm', 480}, TimeCase{"1 2", 's', 8}, TimeCase{"5mm", 's', 8}));

TEST(PropertiesTimeDefault, MissingKeyGivesTheDefaultInTheCallersUnit) {
  const Properties settings;
  EXPECT_EQ(settings.getTime("none", 'm', 1), 60);
  EXPECT_EQ(settings.getTime("none", 'h', 8), 28800);
}

}  // namespace
