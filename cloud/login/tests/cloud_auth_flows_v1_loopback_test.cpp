// The login with a session from end to end: each user of the platform's, each way to answer.
#include "cloud/login/tests/cloud_auth_platform.h"

namespace {

using namespace platformtest;
using testing::ElementsAreArray;
using testing::IsEmpty;

std::string start(const std::string& user) {
  return R"(POST StartAuthentication {"User":")" + user + R"(","Version":"1.0"})";
}

std::string step(const std::string& action, const std::string& mechanism, const std::string& session = "S000001") {
  return "POST AdvanceAuthentication {" + action + R"(,"MechanismId":")" + session + "." + mechanism +
         R"(","SessionId":")" + session + R"(","TenantId":"LAB0001"})";
}
std::string answered(const std::string& mechanism, const std::string& text, const std::string& session = "S000001") {
  return step(R"("Action":"Answer","Answer":")" + text + "\"", mechanism, session);
}
std::string begun(const std::string& mechanism) { return step(R"("Action":"StartOOB")", mechanism); }
std::string polled(const std::string& mechanism) { return step(R"("Action":"Poll")", mechanism); }

struct Row {
  std::string user;
  std::vector<Step> steps;
  Texts requests;
};

class PlatformV1 : public PlatformTest {
 protected:
  void check(const Row& row) {
    SCOPED_TRACE(row.user + " by " + (row.steps.size() > 1 ? row.steps[1].mechanism : row.steps[0].mechanism));
    platform.reset();
    const auto login = client<Client1>("1.0", row.user);
    EXPECT_THAT(requestsOf(*login, row.user, AUTH_NEXT_CHALLENGE, row.steps), ElementsAreArray(row.requests));
    EXPECT_THAT(platform.surprises(), IsEmpty());
  }
  // Password first, then this.
  void checkSecond(const std::vector<Step>& steps, const Texts& requests, const std::string& user = "bob") {
    Row row{
        user, {answer("UP", user + "-Pass1", AUTH_NEXT_CHALLENGE)}, {start(user), answered("0.UP", user + "-Pass1")}};
    row.steps.insert(row.steps.end(), steps.begin(), steps.end());
    row.requests.insert(row.requests.end(), requests.begin(), requests.end());
    check(row);
  }
};

// Answered where the user is asked.
TEST_F(PlatformV1, PasswordAlone) {
  for (const char* user : {"alice", "carol"}) {
    const std::string password = std::string(user) + "-Pass1";
    check({user, {answer("UP", password, AUTH_DONE)}, {start(user), answered("0.UP", password)}});
    check({user, {answer("UP", "wrong", AUTH_FAILED)}, {start(user), answered("0.UP", "wrong")}});
  }
  EXPECT_EQ(access.occupiedCount, 0U);
}

TEST_F(PlatformV1, SecondFactorByItsCode) {
  for (const std::string name : {"OTP", "SMS", "EMAIL"}) {
    checkSecond({startOob(name), answer(name, "246810", AUTH_DONE)},
                {begun("1." + name), answered("1." + name, "246810")});
    checkSecond({startOob(name), answer(name, "111111", AUTH_FAILED)},
                {begun("1." + name), answered("1." + name, "111111")});
  }
  checkSecond({answer("SQ", "Rex", AUTH_DONE)}, {answered("1.SQ", "Rex")});
  checkSecond({answer("SQ", "Fido", AUTH_FAILED)}, {answered("1.SQ", "Fido")});
  checkSecond({answer("RESET", R"(heidi "2")", AUTH_DONE)}, {answered("1.RESET", R"(heidi \"2\")")}, "heidi");
  EXPECT_EQ(access.occupiedCount, 0U);
}

TEST_F(PlatformV1, SecondFactorApprovedElsewhere) {
  for (const std::string name : {"OTP", "SMS", "EMAIL", "PF_home", "PF_office", "PF_mobile"}) {
    const std::string id = "1." + name;
    checkSecond({startOob(name), poll(name, AUTH_PENDING), approve(), poll(name, AUTH_DONE)},
                {begun(id), polled(id), polled(id)});
    checkSecond({startOob(name), deny(), poll(name, AUTH_FAILED)}, {begun(id), polled(id)});
  }
  checkSecond({startOob("OTP"), poll("OTP", AUTH_PENDING), poll("OTP", AUTH_DONE)},
              {begun("1.OTP"), polled("1.OTP"), polled("1.OTP")}, "auto");
  checkSecond({startOob("PF_other"), approve(), poll("PF_other", AUTH_DONE)},
              {begun("1.PF_other"), polled("1.PF_other")}, "kim");
  checkSecond({startOob("OTP"), poll("OTP", AUTH_PENDING), startOob("SMS"), answer("SMS", "246810", AUTH_DONE)},
              {begun("1.OTP"), polled("1.OTP"), begun("1.SMS"), answered("1.SMS", "246810")});
  EXPECT_EQ(access.occupiedCount, 0U);
}

TEST_F(PlatformV1, OnlyASecondFactor) {
  check({"frank",
         {startOob("OTP"), answer("OTP", "246810", AUTH_DONE)},
         {start("frank"), begun("0.OTP"), answered("0.OTP", "246810")}});
}

TEST_F(PlatformV1, NewPackage) {
  checkSecond({answer("SQ", "Rex", AUTH_DONE)}, {answered("0.SQ", "Rex", "S000002")}, "grace");
}

TEST_F(PlatformV1, RedirectIsFollowedOnce) {
  check({"dave",
         {answer("UP", "dave-Pass1", AUTH_DONE)},
         {start("dave"), "pod " + start("dave"), "pod " + answered("0.UP", "dave-Pass1")}});
  check({"erin",
         {answer("UP", "erin-Pass1", AUTH_NEXT_CHALLENGE), startOob("OTP"), answer("OTP", "246810", AUTH_DONE)},
         {start("erin"), "pod " + start("erin"), "pod " + answered("0.UP", "erin-Pass1"), "pod " + begun("1.OTP"),
          "pod " + answered("1.OTP", "246810")}});
}

TEST_F(PlatformV1, RefusedUsers) {
  for (const char* user : {"ivan", "judy", "nobody at all"}) {
    platform.reset();
    const auto login = client<Client1>("1.0", user);
    EXPECT_EQ(failureOf([&] { login->startAuthentication(); }), "CloudException -1 Failed to startAuthentication");
    EXPECT_THAT(requestsFrom(0), testing::ElementsAre(start(user)));
    EXPECT_THAT(platform.surprises(), IsEmpty());
  }
  EXPECT_EQ(access.occupiedCount, 0U);
}

TEST_F(PlatformV1, ManyLoginsKeepOneConnection) {
  const int before = platform.connections();
  for (int i = 0; i < 5; ++i)
    check({"alice", {answer("UP", "alice-Pass1", AUTH_DONE)}, {start("alice"), answered("0.UP", "alice-Pass1")}});
  EXPECT_EQ(platform.connections(), before + 1);
  EXPECT_EQ(access.connections.size(), 1U);
  EXPECT_EQ(access.occupiedCount, 0U);
}

}  // namespace
