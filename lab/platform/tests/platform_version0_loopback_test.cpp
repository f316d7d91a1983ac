// The oldest login.
#include "lab/platform/tests/platform_client.h"

namespace ferrolab {
namespace {

class PlatformVersion0 : public PlatformTest {
 protected:
  Reply policy(const std::string& user) {
    m_query = "?elevate=undefined&user=" + user;
    m_user = user;
    const Reply reply = client.get("security/GetAuthPolicy" + m_query);
    m_record = reply.at("Result.recId");
    return reply;
  }
  Reply login(const std::string& members) { return client.post("security/MultiAuthLogin" + m_query, filled(members)); }
  Reply move(const std::string& members) {
    return client.post("security/MoveToNextLoginPage" + m_query, filled(members));
  }
  // The password with its two steps before it.
  Reply password(const std::string& before, const std::string& text, const std::string& type = "") {
    EXPECT_TRUE(login(R"({"nextMechId":"UP",REC})").succeeded());
    EXPECT_TRUE(move(R"({"nextMechId":"UP",REC,"user":")" + m_user + R"("})").succeeded());
    return login("{" + before + "REC," + type + R"("UP":")" + text + R"("})");
  }

 private:
  std::string filled(std::string text) const {
    return text.replace(text.find("REC"), 3, R"("recId":")" + m_record + R"(")");
  }

  std::string m_query;
  std::string m_user;
  std::string m_record;
};

TEST_F(PlatformVersion0, ThePolicyIsWrittenToTheByte) {
  EXPECT_EQ(policy("kim").body, R"({"success":true,"Result":{"recId":"R000001","mechs":[)"
                                R"({"mechId":"UP","required":"True","fieldText":"Use UP"},)"
                                R"({"mechId":"PF","required":"False","fieldLabel":"other","fieldText":"Use PF other",)"
                                R"("msg":"We call your telephone. Follow what the call says."}]},"Message":null})");
  EXPECT_EQ(policy("frank").at("Result.mechs.0.required"), "True");
  EXPECT_EQ(policy("bob").at("Result.securityquestion"), "Name of your first dog?");
}

TEST_F(PlatformVersion0, APasswordAloneLogsIn) {
  policy("alice");
  const Reply reply = password("", "alice-Pass1");
  EXPECT_TRUE(reply.succeeded());
  EXPECT_EQ(reply.cookie(), "USER-000002");
  EXPECT_EQ(login(R"({"nextMechId":"UP",REC})").at("ErrorID"), "UnknownSession");
}

TEST_F(PlatformVersion0, AWrongPasswordMayBeTriedAgain) {
  policy("alice");
  EXPECT_EQ(password("", "wrong").at("ErrorID"), "WrongPassword");
  EXPECT_TRUE(password("", "alice-Pass1").succeeded());
}

TEST_F(PlatformVersion0, ASecondFactorIsStartedWithThePassword) {
  for (const auto& [name, answer] :
       {std::pair("SMS", "246810"), {"EMAIL", "246810"}, {"OTP", "246810"}, {"SQ", "Rex"}}) {
    policy("bob");
    EXPECT_TRUE(password(std::string(R"("nextMechId":")") + name + R"(",)", "bob-Pass1").succeeded());
    EXPECT_EQ(login(std::string(R"({")") + name + R"(":"wrong",REC})").at("ErrorID"), "WrongAnswer");
    EXPECT_NE(login(std::string(R"({")") + name + R"(":")" + answer + R"(",REC})").cookie(), "") << name;
  }
}

TEST_F(PlatformVersion0, ATelephoneHasItsLine) {
  policy("bob");
  EXPECT_TRUE(password(R"("nextMechId":"PF",)", "bob-Pass1", R"("PFType":"office",)").succeeded());
  EXPECT_EQ(move(R"({"nextMechId":"PF",REC})").at("Result"), R"({"status":"Pending"})");
  platform.approve("bob");
  EXPECT_EQ(move(R"({"nextMechId":"PF",REC})").at("Result"), R"({"status":"Move","code":"MOVE-000002"})");
  EXPECT_EQ(login(R"({"PF":"",REC})").at("ErrorID"), "WrongAnswer");
  EXPECT_TRUE(login(R"({"PF":"MOVE-000002",REC})").succeeded());
  policy("kim");
  EXPECT_TRUE(password(R"("nextMechId":"PF",)", "kim-Pass1", R"("PFType":"",)").succeeded());
}

TEST_F(PlatformVersion0, ApprovalMayComeWithoutACode) {
  platform.user(R"({"name":"frank","codeOnApproval":false})");
  policy("frank");
  EXPECT_TRUE(password(R"("nextMechId":"OTP",)", "").succeeded());
  platform.approve("frank");
  EXPECT_EQ(move(R"({"nextMechId":"OTP",REC})").at("Result"), R"({"status":"Move"})");
  EXPECT_TRUE(login(R"({"OTP":"",REC})").succeeded());
}

TEST_F(PlatformVersion0, DenialRefusesThePoll) {
  policy("bob");
  password(R"("nextMechId":"OTP",)", "bob-Pass1");
  platform.deny("bob");
  EXPECT_EQ(move(R"({"nextMechId":"OTP",REC})").at("ErrorID"), "Denied");
}

TEST_F(PlatformVersion0, ANewPasswordIsTakenOver) {
  policy("heidi");
  password(R"("nextMechId":"RESET",)", "heidi-Pass1");
  EXPECT_TRUE(login(R"({"RESET":"fresh",REC})").succeeded());
  policy("heidi");
  EXPECT_TRUE(password(R"("nextMechId":"RESET",)", "fresh").succeeded());
}

TEST_F(PlatformVersion0, Redirects) {
  EXPECT_EQ(policy("dave").at("Result"), R"({"PodFqdn":")" + platform.podHost() + R"("})");
  client = Client("http://" + platform.podHost() + "/");
  EXPECT_EQ(policy("dave").at("Result.PodFqdn"), "");
  EXPECT_TRUE(password("", "dave-Pass1").succeeded());
  EXPECT_EQ(policy("erin").at("Result.PodFqdn"), platform.podHost());
  EXPECT_NE(policy("erin").at("Result.recId"), "");
}

TEST_F(PlatformVersion0, RefusesWhomItDoesNotLetIn) {
  EXPECT_EQ(policy("ivan").at("ErrorID"), "NoFactors");
  EXPECT_EQ(policy("judy").at("ErrorID"), "UserDisabled");
}

TEST_F(PlatformVersion0, AUserNameIsDecoded) {
  platform.user(R"({"name":"odd user@x","password":"p","login":"password"})");
  EXPECT_TRUE(policy("odd%20user%40x").succeeded());
}

}  // namespace
}  // namespace ferrolab
