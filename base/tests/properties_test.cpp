#include "base/include/properties.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(Properties, LookupDoesNotLookAtTheCaseOfTheKey) {
  lumo::Properties settings;
  settings.setProperty("ferrod.cloud.proxy.server", "proxy:3128");
  EXPECT_EQ(settings.getProperty("FERROD.CLOUD.PROXY.SERVER"), "proxy:3128");
}

TEST(Properties, ValueKeepsItsCase) {
  lumo::Properties settings;
  settings.setProperty("a", "MiXed Value");
  EXPECT_EQ(settings.getProperty("A"), "MiXed Value");
}

TEST(Properties, MissingKeyGivesTheDefault) {
  const lumo::Properties settings;
  EXPECT_EQ(settings.getProperty("nothing"), "");
  EXPECT_EQ(settings.getProperty("nothing", "default"), "default");
}

TEST(Properties, EmptyValueIsNotAMissingOne) {
  lumo::Properties settings;
  settings.setProperty("a", "");
  EXPECT_EQ(settings.getProperty("a", "default"), "");
}

TEST(Properties, KeyKeepsItsFirstSpelling) {
  lumo::Properties settings;
  settings.setProperty("Some.Key", "1");
  settings.setProperty("SOME.KEY", "2");
  const auto all = settings.below("some.");
  ASSERT_EQ(all.size(), 1U);
  EXPECT_EQ(all.begin()->first, "Key");
  EXPECT_EQ(all.begin()->second, "2");
}

struct BoolCase {
  const char* value;
  bool whenTrue;   // answer with default true
  bool whenFalse;  // answer with default false
};

class PropertiesBool : public testing::TestWithParam<BoolCase> {};

TEST_P(PropertiesBool, WordsAndDefault) {
  lumo::Properties settings;
  settings.setProperty("key", GetParam().value);
  EXPECT_EQ(settings.getBool("key", true), GetParam().whenTrue);
  EXPECT_EQ(settings.getBool("KEY", false), GetParam().whenFalse);
}

INSTANTIATE_TEST_SUITE_P(
    Words, PropertiesBool,
    testing::Values(BoolCase{"true", true, true}, BoolCase{"yes", true, true}, BoolCase{"1", true, true},
                    BoolCase{"YES", true, true}, BoolCase{"TrUe", true, true}, BoolCase{"false", false, false},
                    BoolCase{"no", false, false}, BoolCase{"0", false, false}, BoolCase{"NO", false, false},
                    BoolCase{"", true, false}, BoolCase{"on", true, false}, BoolCase{"enabled", true, false},
                    BoolCase{" yes", true, false}, BoolCase{"2", true, false}, BoolCase{"yess", true, false}));

TEST(Properties, BoolOfAMissingKeyIsTheDefault) {
  const lumo::Properties settings;
  EXPECT_TRUE(settings.getBool("key", true));
  EXPECT_FALSE(settings.getBool("key", false));
}

TEST(Properties, BoolOfAValueWithAZeroByteIsTheDefault) {
  lumo::Properties settings;
  settings.setProperty("key", std::string("yes\0no", 6));
  EXPECT_FALSE(settings.getBool("key", false));
}

TEST(Properties, BoolFollowsAChangeOfTheValue) {
  lumo::Properties settings;
  settings.setProperty("key", "yes");
  EXPECT_TRUE(settings.getBool("key", false));
  settings.setProperty("KEY", "no");
  EXPECT_FALSE(settings.getBool("key", true));
  settings.setProperty("key", "perhaps");
  EXPECT_TRUE(settings.getBool("key", true));
  settings.setProperty("key", "no");
  EXPECT_FALSE(settings.getBool("key", true));
  settings.eraseProperty("Key");
  EXPECT_TRUE(settings.getBool("key", true));
}

TEST(Properties, DirtyAfterAChangeOnly) {
  lumo::Properties settings;
  EXPECT_FALSE(settings.dirty());
  settings.eraseProperty("nothing");
  EXPECT_FALSE(settings.dirty());
  settings.setProperty("a", "1");
  EXPECT_TRUE(settings.dirty());
}

TEST(Properties, EraseOfAKeyThatIsThereIsAChange) {
  lumo::Properties settings;
  settings.loadFile("/nonexistent/file");
  settings.setProperty("a", "1");
  settings.eraseProperty("A");
  EXPECT_TRUE(settings.dirty());
  EXPECT_EQ(settings.getProperty("a", "gone"), "gone");
}

TEST(Properties, BelowGivesTheKeysOfAPrefixWithoutIt) {
  lumo::Properties settings;
  settings.setProperty("cli.hook", "0");
  settings.setProperty("CLI.Hook.set", "/bin/a");
  settings.setProperty("cli.hook.test", "/bin/b");
  settings.setProperty("cli.hooks", "2");
  const auto hooks = settings.below("cli.hook.");
  ASSERT_EQ(hooks.size(), 2U);
  EXPECT_EQ(hooks.at("SET"), "/bin/a");
  EXPECT_EQ(hooks.at("test"), "/bin/b");
}

TEST(Properties, ThreadsReadAndWriteAtOnce) {
  lumo::Properties settings;
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) {
      settings.setProperty("key", i % 2 == 0 ? "yes" : "no");
      settings.eraseProperty("key");
    }
  });
  std::thread reader([&] {
    for (int i = 0; i < 2000; ++i) {
      settings.getBool("key", true);
      const std::string value = settings.getProperty("KEY", "none");
      ASSERT_TRUE(value == "yes" || value == "no" || value == "none") << value;
    }
  });
  writer.join();
  reader.join();
}

}  // namespace
