// The script: what it may say, and with which words it is refused; JSON texts and paths.
#include "lab/platform/platform_script.h"

#include <gmock/gmock.h>

#include <stdexcept>

#include "lab/platform/platform_simulator.h"

namespace ferrolab {
namespace {

Script read(const std::string& text) { return readScript(parsed(text, "the script")); }

std::string refusal(const std::string& text) {
  try {
    read(text);
  } catch (const std::invalid_argument& failure) {
    return failure.what();
  }
  return "";
}

// A script with one policy, and one user with these further members.
std::string withUser(const std::string& members) {
  return R"({"policies":{"p":{"challenges":[["UP"]]}},"machines":{},"users":[{"name":"u","login":"p")" + members +
         "}]}";
}
std::string withPolicy(const std::string& policy) {
  return R"({"policies":{"p":)" + policy + R"(},"machines":{},"users":[]})";
}

TEST(PlatformScript, TheDefaultOneIsGood) {
  const Script script = read(PlatformSimulator::defaultScript());
  EXPECT_EQ(script.tenant, "LAB0001");
  EXPECT_EQ(script.users.at("bob").phones.at("office"), "+15550102");
  EXPECT_EQ(script.users.at("frank").elevation.rounds, (std::vector<std::string>{"otp", "sms"}));
  EXPECT_EQ(script.users.at("judy").serverLogin.access, Privilege::Denied);
  EXPECT_EQ(script.users.at("erin").redirect, User::Always);
  EXPECT_FALSE(script.machines.at("HOST2$").mayAct);
  EXPECT_EQ(script.policies.at("more").challenges.at(0).size(), 6U);
}

TEST(PlatformScript, SaysWhatIsWrong) {
  EXPECT_EQ(refusal("{\n\n\"a\" 1}"), "the script, line 3: Missing a colon after a name of object member.");
  EXPECT_EQ(refusal("[]"), "the script has to be an object");
  EXPECT_EQ(refusal(R"({"polices":{}})"), "the script has an unknown member 'polices'");
  EXPECT_EQ(refusal("{}"), "'policies' has to be an object");
  EXPECT_EQ(refusal(R"({"policies":{}})"), "'users' has to be a list");
  EXPECT_EQ(refusal(R"({"policies":{},"users":[]})"), "'machines' has to be an object");
  EXPECT_EQ(refusal(R"({"policies":{},"users":[],"machines":{"m":1}})"), "machine 'M' has to be an object");
  EXPECT_EQ(refusal(R"({"codeUses":"x"})"), "'codeUses' has to be a number, not below 0");
  EXPECT_EQ(refusal(withPolicy(R"({"challenges":["UP"]})")), "policy 'p': 'challenges' has to be a list of lists");
  EXPECT_EQ(refusal(withPolicy("{}")), "policy 'p': 'challenges' has to be a list of lists");
  EXPECT_EQ(refusal(withPolicy(R"({"challenges":[["UPS"]]})")), "'UPS' is no factor");
  EXPECT_EQ(refusal(withPolicy(R"({"challenges":[["PF:boat"]]})")), "'PF:boat' is no factor");
  EXPECT_EQ(refusal(withPolicy(R"({"challenges":[["UP:home"]]})")), "'UP:home' is no factor");
  EXPECT_EQ(refusal(withPolicy(R"({"challenges":[],"next":"q"})")),
            "policy 'p' names the policy 'q', which is not there");
  EXPECT_EQ(refusal(withPolicy(R"({"challenges":[],"prompts":1})")), "'prompts' has to be true or false");
}

TEST(PlatformScript, SaysWhatIsWrongWithAUser) {
  EXPECT_EQ(refusal(withUser("")), "");
  EXPECT_EQ(refusal(withUser(R"(,"mails":"x")")), "user 'u': 'mails' is unknown");
  EXPECT_EQ(refusal(withUser(R"(,"mail":1)")), "user 'u': 'mail' has to be a text");
  EXPECT_EQ(refusal(withUser(R"(,"disabled":1)")), "user 'u': 'disabled' has to be true or false");
  EXPECT_EQ(refusal(withUser(R"(,"codeOnApproval":1)")), "user 'u': 'codeOnApproval' has to be true or false");
  EXPECT_EQ(refusal(withUser(R"(,"approveAfterPolls":-1)")),
            "user 'u': 'approveAfterPolls' has to be a whole number, not below 0");
  EXPECT_EQ(refusal(withUser(R"(,"redirect":"x")")), "'redirect' has to be never, once or always");
  EXPECT_EQ(refusal(withUser(R"(,"phones":{"boat":"1"})")), "user 'u': 'phones' has an unknown member 'boat'");
  for (const char* value : {R"("x")", "[]", "1"}) {
    EXPECT_EQ(refusal(withUser(std::string(R"(,"elevation":)") + value)),
              "user 'u': 'elevation' has to be free, not-configured, denied or a list of policies");
  }
  EXPECT_EQ(refusal(withUser(R"(,"serverLogin":["q"])")), "user 'u' names the policy 'q', which is not there");
  EXPECT_EQ(refusal(R"({"policies":{},"machines":{},"users":[{}]})"), "a user has to be an object with a 'name'");
  EXPECT_EQ(refusal(R"({"policies":{},"machines":{},"users":[{"name":"u"}]})"),
            "user 'u' names the policy '', which is not there");
}

TEST(PlatformJson, TextsAreEscapedAsTheyHaveToBe) {
  EXPECT_EQ(JsonObject().text("a\"", "\\\n\x01\xc3\xa4/").flag("b", true).number("c", -1).raw("d", "[]").str(),
            R"({"a\"":"\\\n\u0001)"
            "\xc3\xa4"
            R"(/","b":true,"c":-1,"d":[]})");
  EXPECT_EQ(JsonObject().str(), "{}");
  EXPECT_EQ(JsonArray().str(), "[]");
  EXPECT_EQ(JsonArray().add("1").add("{}").str(), "[1,{}]");
}

TEST(PlatformJson, PathsLeadToValues) {
  rapidjson::Document document = parsed(R"({"a":[{"b":1},{"b":2}],"0":3})", "it");
  EXPECT_EQ(written(*valueAt(document, "a.1.b")), "2");
  EXPECT_EQ(written(*valueAt(document, "0")), "3");
  for (const char* nowhere : {"a.2", "a.b", "a.1.b.c", "x"}) EXPECT_EQ(valueAt(document, nowhere), nullptr);
  EXPECT_TRUE(removeAt(document, "a.0"));
  EXPECT_FALSE(removeAt(document, "a.7"));
  EXPECT_TRUE(setAt(document, "a.0.c", JsonValue("x")));
  EXPECT_TRUE(setAt(document, "0", JsonValue(true)));
  EXPECT_FALSE(setAt(document, "a.5", JsonValue(true)));
  EXPECT_FALSE(setAt(document, "x.y", JsonValue(true)));
  EXPECT_EQ(written(document), R"({"a":[{"b":2,"c":"x"}],"0":true})");
}

}  // namespace
}  // namespace ferrolab
