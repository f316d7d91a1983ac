#include "base/include/logger.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <set>
#include <thread>

#include "base/include/properties.h"

using lumo::Logger;

namespace {

boost::shared_ptr<Logger> makeLogger(const char* name, const boost::shared_ptr<Logger>& parent, int first, int second) {
  auto logger = boost::make_shared<Logger>(name, parent);
  logger->setThreshold(0, first);
  logger->setThreshold(1, second);
  return logger;
}

// The thresholds are put back to the defaults.
class LoggerLevels : public testing::Test {
 protected:
  void TearDown() override {
    lumo::Properties none;
    Logger::ReconfigureLevels(none);
  }
};

TEST(Logger, OpenWhenEitherThresholdLetsTheLevelThrough) {
  const auto first = makeLogger("first", nullptr, 2, 5);
  const auto second = makeLogger("second", nullptr, 5, 2);
  for (const auto& logger : {first, second}) {
    EXPECT_FALSE(logger->isLevelEnabled(1));
    EXPECT_TRUE(logger->isLevelEnabled(2));
    EXPECT_TRUE(logger->isLevelEnabled(4));
  }
}

TEST(Logger, OffLetsNothingThrough) {
  const auto logger = makeLogger("off", nullptr, Logger::OFF, Logger::OFF);
  for (int level = 0; level <= 5; ++level) EXPECT_FALSE(logger->isLevelEnabled(level)) << level;
}

TEST(Logger, UnsetThresholdComesFromTheNearestAncestorThatHasOne) {
  const auto root = makeLogger("log", nullptr, 4, 3);
  const auto middle = makeLogger("a", root, 1, -1);
  const auto leaf = makeLogger("a.b", makeLogger("a.x", middle, -1, -1), -1, -1);
  EXPECT_EQ(leaf->threshold(0), 1);
  EXPECT_EQ(leaf->threshold(1), 3);
}

TEST(Logger, ResolvedThresholdIsCached) {
  const auto root = makeLogger("log", nullptr, 4, 4);
  const auto leaf = makeLogger("a", root, -1, -1);
  EXPECT_FALSE(leaf->isLevelEnabled(3));
  root->setThreshold(0, 1);
  root->setThreshold(1, 1);
  EXPECT_FALSE(leaf->isLevelEnabled(3));
}

TEST(Logger, RootWithoutThresholdsLetsNothingThrough) {
  const auto root = makeLogger("log", nullptr, -1, -1);
  EXPECT_FALSE(root->isLevelEnabled(5));
}

TEST(Logger, DiagPutsItsPrefixInFront) {
  EXPECT_EQ(getLogger("x", true)->name(), "diag.x");
  EXPECT_EQ(getLogger("x", false)->name(), "x");
}

TEST(Logger, OneHandleForEachThread) {
  const auto mine = getLogger("cloud.object", false);
  EXPECT_EQ(getLogger("cloud.object", false), mine);
  boost::shared_ptr<Logger> others;
  std::thread([&] { others = getLogger("cloud.object", false); }).join();
  EXPECT_NE(others, mine);
  // A handle may outlive its thread.
  EXPECT_EQ(others->name(), "cloud.object");
  EXPECT_TRUE(others->isLevelEnabled(5));
}

TEST_F(LoggerLevels, InformationIsTheDefault) {
  lumo::Properties none;
  Logger::ReconfigureLevels(none);
  const auto logger = getLogger("some.logger", false);
  EXPECT_EQ(logger->threshold(0), 2);
  EXPECT_EQ(logger->threshold(1), Logger::OFF);
  EXPECT_EQ(getLogger("log", false)->threshold(0), 2);
}

struct LevelName {
  const char* name;
  int value;
};

TEST_F(LoggerLevels, NamesOfTheLevels) {
  for (const LevelName& level :
       {LevelName{"TRACE", 0}, LevelName{"DEBUG", 1}, LevelName{"INFO", 2}, LevelName{"WARN", 3}, LevelName{"ERROR", 4},
        LevelName{"FATAL", 5}, LevelName{"OFF", 6}, LevelName{"debug", 1}, LevelName{"Warn", 3}}) {
    lumo::Properties settings;
    settings.setProperty("log", level.name);
    Logger::ReconfigureLevels(settings);
    EXPECT_EQ(getLogger("log", false)->threshold(0), level.value) << level.name;
    EXPECT_EQ(getLogger("made.before.or.after", false)->threshold(0), level.value) << level.name;
  }
}

TEST_F(LoggerLevels, BrokenNameCountsAsNotSet) {
  lumo::Properties settings;
  settings.setProperty("log", "LOUD");
  settings.setProperty("log.cloud", "7");
  Logger::ReconfigureLevels(settings);
  EXPECT_EQ(getLogger("log", false)->threshold(0), 2);
  EXPECT_EQ(getLogger("cloud", false)->threshold(0), 2);
}

TEST_F(LoggerLevels, SettingOfANameReachesAllBelowIt) {
  lumo::Properties settings;
  settings.setProperty("log", "ERROR");
  settings.setProperty("log.cloud", "DEBUG");
  settings.setProperty("log.cloud.proxy.gss", "OFF");
  settings.setProperty("log.diag.cloud", "WARN");
  Logger::ReconfigureLevels(settings);
  EXPECT_EQ(getLogger("cloud", false)->threshold(0), 1);
  EXPECT_EQ(getLogger("cloud.proxy", false)->threshold(0), 1);
  EXPECT_EQ(getLogger("cloud.proxy.gss", false)->threshold(0), Logger::OFF);
  EXPECT_EQ(getLogger("cloudy", false)->threshold(0), 4);
  EXPECT_EQ(getLogger("base", false)->threshold(0), 4);
  EXPECT_EQ(getLogger("cloud", true)->threshold(0), 3);
}

TEST_F(LoggerLevels, NoLogFileMeansNoSecondThreshold) {
  lumo::Properties settings;
  settings.setProperty("log", "DEBUG");
  settings.setProperty("log.cloud", "TRACE");
  Logger::ReconfigureLevels(settings);
  EXPECT_EQ(getLogger("log", false)->threshold(1), Logger::OFF);
  EXPECT_EQ(getLogger("cloud", false)->threshold(1), Logger::OFF);
}

TEST_F(LoggerLevels, ReconfigurationReachesLoggersThatHaveCached) {
  lumo::Properties settings;
  settings.setProperty("log", "ERROR");
  Logger::ReconfigureLevels(settings);
  const auto logger = getLogger("a.b.c", false);
  EXPECT_FALSE(logger->isLevelEnabled(1));
  settings.setProperty("log", "DEBUG");
  Logger::ReconfigureLevels(settings);
  EXPECT_TRUE(logger->isLevelEnabled(1));
  settings.setProperty("log.a.b", "ERROR");
  Logger::ReconfigureLevels(settings);
  EXPECT_FALSE(logger->isLevelEnabled(1));
}

TEST_F(LoggerLevels, ThreadsLogWhileLevelsChange) {
  std::thread changing([] {
    lumo::Properties settings;
    for (int i = 0; i < 300; ++i) {
      settings.setProperty("log", i % 2 == 0 ? "OFF" : "FATAL");
      Logger::ReconfigureLevels(settings);
    }
  });
  std::vector<std::thread> logging;
  for (int t = 0; t < 3; ++t) {
    logging.emplace_back([t] {
      for (int i = 0; i < 300; ++i) {
        const auto logger = getLogger(("thread." + std::to_string(t) + "." + std::to_string(i % 7)).c_str(), false);
        ASSERT_FALSE(logger->isLevelEnabled(-1));
        LUMO_LOG(logger, 1, "%d", i);
      }
    });
  }
  changing.join();
  for (auto& thread : logging) thread.join();
  // The last word was FATAL: nothing stale stays in any cache.
  std::set<int> thresholds;
  std::thread([&] {
    for (int i = 0; i < 7; ++i)
      thresholds.insert(getLogger(("thread.1." + std::to_string(i)).c_str(), false)->threshold(0));
  }).join();
  EXPECT_EQ(thresholds, std::set<int>{5});
}

TEST(Logger, ArgumentsOfAClosedLevelAreNotEvaluated) {
  const auto logger = makeLogger("closed", nullptr, 4, 4);
  int evaluated = 0;
  LUMO_LOG(logger, 3, "%d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
}

}  // namespace
