// How often the directory counts one wrong password.
#include <gtest/gtest.h>

#include "cli/tests/tool_host.h"
#include "testsupport/lab_control.h"

namespace {

using namespace tooltest;

std::string lab(const std::string& name) { return testsupport::env(("FERRO_LAB_" + name).c_str()); }

// The directory's count of a user's wrong passwords; the right one sets it back.
int badPasswords(const std::string& user) {
  const std::string attribute = "badPwdCount: ";
  const std::string entry =
      testsupport::labAsk({"ldapsearch", "-LLL", "-b", lab("BASE_DN"), "(sAMAccountName=" + user + ")", "badPwdCount"});
  const std::size_t at = entry.find(attribute);
  return at == std::string::npos ? 0 : std::stoi(entry.substr(at + attribute.size()));
}

// The directory counts only where it locks accounts after so many.
void lockAccountsAfter(int guesses) {
  testsupport::ProcessOptions change;
  change.input = "dn: " + lab("BASE_DN") +
                 "\nchangetype: modify\nreplace: lockoutThreshold\nlockoutThreshold: " + std::to_string(guesses) + "\n";
  const auto result = testsupport::run({lab("TOOL"), "ctl", "ldapmodify"}, change);
  ASSERT_EQ(result.status, 0) << result.out << result.err;
}

TEST(GuessLab, WrongPasswordCountsOnce) {
  const auto test = [](const std::string& password) {
    return tool({"-T", "-c", lab("PLATFORM_URL"), "-s", lab("PROXY_NEGOTIATE"), "-u", "bob", "-p", password}).status;
  };
  lockAccountsAfter(10);
  for (const char* type : {"Negotiate", "AnyAuth"}) {
    configure("ferrod.cloud.cert.store: " + lab("CA") +
              "\nferrod.cloud.proxy.auth.required: true\nferrod.cloud.proxy.auth.type: " + type + "\n");
    EXPECT_EQ(test(lab("PASSWORD_BOB")), 0) << type;
    EXPECT_EQ(badPasswords("bob"), 0) << type;
    EXPECT_EQ(test("wrong"), 162) << type;
    EXPECT_EQ(badPasswords("bob"), 1) << type;
    EXPECT_EQ(test("wrong again"), 162) << type;
    EXPECT_EQ(badPasswords("bob"), 2) << type;
  }
  EXPECT_EQ(test(lab("PASSWORD_BOB")), 0);
  lockAccountsAfter(0);
  std::filesystem::remove(CONFIGURATION);
}

}  // namespace
