#include <getopt.h>
#include <gtest/gtest.h>

#include <vector>

#include "cli/cli_ferrogate.h"

namespace {

// Gives the parser an argument in memory that can be written to, as the kernel does.
class Argument {
 public:
  explicit Argument(const std::string& text) : m_bytes(text.begin(), text.end()) {
    m_bytes.push_back('\0');
    optarg = m_bytes.data();
  }
  std::string now() const { return {m_bytes.begin(), m_bytes.end() - 1}; }

 private:
  std::vector<char> m_bytes;
};

using Parser = int (*)(int, CommandOptions&);

struct Answer {
  int code;
  std::string report;
};

Answer parse(Parser parser, char letter, const std::string& argument, CommandOptions& record) {
  const Argument given(argument);
  testing::internal::CaptureStderr();
  const int code = parser(letter, record);
  return {code, testing::internal::GetCapturedStderr()};
}

TEST(CommonOption, TakesVerboseRefusesTheQuestionMarkAndLeavesTheRest) {
  CommandOptions record;
  EXPECT_EQ(parseCommonOption('V', record), 0);
  EXPECT_TRUE(record.verbose);
  testing::internal::CaptureStderr();
  EXPECT_EQ(parseCommonOption('?', record), 7);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Wrong option.\n\n");
  EXPECT_EQ(parseCommonOption('u', record), -1);
  EXPECT_EQ(parseCommonOption(-1, record), -1);
}

TEST(AnyOption, IsRefusedBySetAndPassedOverByTestWhenItsLetterIsUnknown) {
  CommandOptions record;
  Answer answer = parse(&parseSetCommandOption, 'x', "", record);
  EXPECT_EQ(answer.code, 7);
  EXPECT_EQ(answer.report, "Wrong option.\n\n");
  answer = parse(&parseTestCommandOption, 'x', "", record);
  EXPECT_EQ(answer.code, 0);
  EXPECT_EQ(answer.report, "Wrong option.\n\n");
}

TEST(Password, IsOverwrittenWhereItStoodOnceItIsRead) {
  for (const Parser parser : {&parseSetCommandOption, &parseTestCommandOption}) {
    CommandOptions record;
    const Argument given("s3cret");
    EXPECT_EQ(parser('p', record), 0);
    EXPECT_EQ(given.now(), std::string(6, '\0'));
    EXPECT_EQ(record.password, lumo::Shredder2("s3cret"));
  }
}

TEST(Password, IsOverwrittenAlsoWhenItIsRefused) {
  CommandOptions record;
  record.username = MACHINE_MARKER;
  const Argument given("s3cret");
  testing::internal::CaptureStderr();
  EXPECT_EQ(parseSetCommandOption('p', record), 7);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Cannot use --password option with --machine option.\n\n");
  EXPECT_EQ(given.now(), std::string(6, '\0'));
  EXPECT_TRUE(record.password.empty());
}

TEST(Password, GivenEmptyTakesAnEarlierOneBack) {
  CommandOptions record;
  parse(&parseSetCommandOption, 'p', "one", record);
  EXPECT_EQ(parse(&parseSetCommandOption, 'p', "", record).code, 0);
  EXPECT_TRUE(record.password.empty());
}

TEST(Password, InsideAnAddressIsOverwrittenInTheArgumentAndKeptInTheRecord) {
  CommandOptions record;
  const Argument url("https://bob:pw@host/x");
  EXPECT_EQ(parseTestCommandOption('c', record), 0);
  EXPECT_EQ(url.now(), "https://bob:**@host/x");
  EXPECT_EQ(record.opxUrl, "https://bob:pw@host/x");
  const Argument server("bob:pw@proxy:3128");
  EXPECT_EQ(parseTestCommandOption('s', record), 0);
  EXPECT_EQ(server.now(), "bob:**@proxy:3128");
  EXPECT_EQ(record.server, "bob:pw@proxy:3128");
}

TEST(ServerName, NeedsHostAndPort) {
  for (const char* good : {"host:3128", "host:abc", "a:b:c", "h:1 ", "http://proxy:3128"}) {
    EXPECT_EQ(checkServerNameSyntax(good), 0) << good;
  }
  for (const char* bad : {"", ":", "host", "host:", ":8080"}) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(checkServerNameSyntax(bad), 7) << bad;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Invalid server's name format specified in --server option.\n\n");
  }
}

TEST(Server, GivenEmptyIsToBeClearedBySetAloneAndKeepsThatMark) {
  CommandOptions record;
  EXPECT_EQ(parse(&parseSetCommandOption, 's', "", record).code, 0);
  EXPECT_TRUE(record.clearServer);
  EXPECT_EQ(parse(&parseSetCommandOption, 's', "h:1", record).code, 0);
  EXPECT_TRUE(record.clearServer);
  EXPECT_EQ(record.server, "h:1");
  CommandOptions test;
  EXPECT_EQ(parse(&parseTestCommandOption, 's', "", test).code, 0);
  EXPECT_FALSE(test.clearServer);
}

TEST(AuthRequired, IsStoredInLowerCaseAlsoWhenItIsRefused) {
  CommandOptions record;
  EXPECT_EQ(parse(&parseSetCommandOption, 'r', "TRUE", record).code, 0);
  EXPECT_EQ(record.authRequired, "true");
  EXPECT_EQ(parse(&parseSetCommandOption, 'r', "False", record).code, 0);
  EXPECT_EQ(record.authRequired, "false");
  const Answer refused = parse(&parseSetCommandOption, 'r', "YES", record);
  EXPECT_EQ(refused.code, 7);
  EXPECT_EQ(refused.report, "Invalid value specified to --authreq option.\n\n");
  EXPECT_EQ(record.authRequired, "yes");
  EXPECT_FALSE(record.clearAuthRequired);
  EXPECT_EQ(parse(&parseSetCommandOption, 'r', "", record).code, 0);
  EXPECT_TRUE(record.clearAuthRequired);
}

TEST(AuthType, IsStoredInLowerCaseAlsoWhenItIsRefused) {
  CommandOptions record;
  for (const char* name : {"BASIC", "Negotiate", "anyauth"}) {
    EXPECT_EQ(parse(&parseSetCommandOption, 't', name, record).code, 0) << name;
  }
  EXPECT_EQ(record.authType, "anyauth");
  const Answer refused = parse(&parseSetCommandOption, 't', "Kerberos", record);
  EXPECT_EQ(refused.code, 7);
  EXPECT_EQ(refused.report, "Invalid value specified to --authtype option.\n\n");
  EXPECT_EQ(record.authType, "kerberos");
  EXPECT_EQ(parse(&parseSetCommandOption, 't', "", record).code, 0);
  EXPECT_TRUE(record.clearAuthType);
}

TEST(AuthType, GivenEmptyIsStoredEmpty) {
  CommandOptions record;
  EXPECT_EQ(parse(&parseSetCommandOption, 't', "basic", record).code, 0);
  EXPECT_EQ(parse(&parseSetCommandOption, 't', "", record).code, 0);
  EXPECT_EQ(record.authType, "");
  EXPECT_TRUE(record.clearAuthType);
  record.username = MACHINE_MARKER;
  record.authType = "basic";
  EXPECT_EQ(parse(&parseSetCommandOption, 't', "", record).code, 7);
  EXPECT_EQ(record.authType, "") << "stored before the refusal";
}

TEST(Url, IsStoredAlsoWhenItIsRefused) {
  CommandOptions record;
  EXPECT_EQ(parse(&parseTestCommandOption, 'c', "https://h/", record).code, 0);
  const Answer refused = parse(&parseTestCommandOption, 'c', "", record);
  EXPECT_EQ(refused.code, 7);
  EXPECT_EQ(refused.report, "Morvane Identity Platform should not be empty.\n\n");
  EXPECT_EQ(record.opxUrl, "");
}

TEST(AuthType, OfTheMachineIsRefusedBeforeItsValueIsLookedAt) {
  for (const char* name : {"", "NTLM", "nonsense", "basic"}) {
    CommandOptions record;
    record.username = MACHINE_MARKER;
    const Answer refused = parse(&parseSetCommandOption, 't', name, record);
    EXPECT_EQ(refused.code, 7) << name;
    EXPECT_EQ(refused.report, "Cannot use --authtype option with --machine option.\n\n") << name;
    EXPECT_FALSE(record.clearAuthType);
  }
}

}  // namespace
