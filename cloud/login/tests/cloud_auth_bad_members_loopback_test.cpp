// Every member of every reply: missing, of the wrong type, empty, huge; replies with another's session; very long
// lists.
#include <ctime>

#include "cloud/http/tests/curl_words.h"
#include "cloud/login/tests/cloud_auth_bad_reply.h"
#include "testsupport/sanitizers.h"

namespace {

using namespace platformtest;
using testing::StartsWith;

enum Kind { TEXT, ARRAY, OBJECT };

// What comes of a member that is not as it should be.
struct Member {
  Kind kind;
  std::string path;
  std::string removed;
  std::string wrongType;
  std::string empty;
  std::string huge;  // of a text
};

// Its absence stops the login.
Member strict(const std::string& path, const std::string& removed, const std::string& empty, const std::string& huge) {
  return {TEXT, path, removed, removed, empty, huge};
}
// It makes no difference.
Member optional(const std::string& path, const std::string& good) { return {TEXT, path, good, good, good, good}; }
// Everything but a full one makes the same difference.
Member whole(Kind kind, const std::string& path, const std::string& bad) { return {kind, path, bad, bad, bad, bad}; }

std::string to(const std::string& path, const std::string& value) { return R"("set":")" + path + R"(","to":)" + value; }
std::string hugeText(size_t length = 100000) { return "\"" + std::string(length, 'x') + "\""; }

class Members : public Scenes {
 protected:
  void check(const Scene& scene, const std::vector<Member>& members) {
    for (const Member& member : members) {
      SCOPED_TRACE(scene.name + " " + member.path);
      EXPECT_EQ(outcomeOf(scene, R"("remove":")" + member.path + "\""), member.removed);
      std::vector<std::string> wrong{"null", "7", "true", "[]", "{}", R"("text")"};
      const std::string ownEmpty = member.kind == TEXT ? "\"\"" : member.kind == ARRAY ? "[]" : "{}";
      const std::string ownType = member.kind == TEXT ? R"("text")" : ownEmpty;
      for (const std::string& value : wrong) {
        if (value == ownType) continue;
        EXPECT_EQ(outcomeOf(scene, to(member.path, value)), member.wrongType) << value;
      }
      EXPECT_EQ(outcomeOf(scene, to(member.path, ownEmpty)), member.empty);
      if (member.kind != TEXT) continue;
      EXPECT_EQ(outcomeOf(scene, to(member.path, hugeText())), member.huge);
    }
  }

  // A challenge policy's, at a scene that reads one of a single challenge.
  std::vector<Member> policy(const std::string& good) const {
    const std::string first = "Result.Challenges.0";
    return {
        strict("Result.SessionId", missing("SessionId"), good, good),
        strict("Result.TenantId", missing("TenantId"), good, good),
        strict("Result.Version", missing("Version"), POLICY + "'Version' = '' but NOT V1",
               (POLICY + "'Version' = '" + std::string(511, 'x')).substr(0, sizeof "CloudException -1" + 511)),
        whole(ARRAY, "Result.Challenges", POLICY + "no challenges exist"),
        {OBJECT, first, POLICY + "no challenges exist", missing("Mechanisms"), good, ""},
        {OBJECT, first + ".Mechanisms.0", good, missing("MechanismId"), missing("MechanismId"), ""},
        strict(first + ".Mechanisms.0.MechanismId", missing("MechanismId"), good, good),
        strict(first + ".Mechanisms.0.Name", missing("Name"), good, good),
    };
  }

  const std::string POLICY = "CloudException -1 Errors in parsing policy from Json: ";
  const std::string GOOD = "AUTH_NEXT_CHALLENGE";
};

}  // namespace

TEST_F(Members, PolicyOfTheOldestLogin) {
  const std::string none = POLICY + "no mechanisms exist";
  check(policy0(), {whole(OBJECT, "Result", missing("recId")),
                    strict("Result.recId", missing("recId"), GOOD, GOOD),
                    optional("Result.securityquestion", GOOD),
                    whole(ARRAY, "Result.mechs", none),
                    {OBJECT, "Result.mechs.0", GOOD, missing("required"), missing("required"), ""},
                    strict("Result.mechs.0.mechId", missing("mechId"), GOOD, GOOD),
                    strict("Result.mechs.0.required", missing("required"), GOOD, GOOD),
                    whole(TEXT, "Result.mechs.1.msg", "std::out_of_range"),
                    optional("Result.mechs.1.fieldText", GOOD),
                    optional("Result.mechs.4.fieldLabel", GOOD)});
  EXPECT_EQ(outcomeOf(policy0(), to("Result.mechs.1.required", "\"True\"")),
            POLICY + "there're more than one required mechanisms in REST V0");
}

TEST_F(Members, StepsOfTheOldestLogin) {
  for (const Scene& scene : {announce0(), page0(), password0(), answer0()}) {
    check(scene, {whole(OBJECT, "Result", "AUTH_DONE")});
  }
  check(poll0(), {whole(OBJECT, "Result", missing("status")),
                  strict("Result.status", missing("status"), "AUTH_PENDING", "AUTH_PENDING")});
  Scene moved = poll0();
  moved.prepare = [this, before = moved.prepare] {
    auto login = before();
    platform.approve("bob");
    return login;
  };
  // The code goes back to the platform as it came.
  check(moved, {whole(TEXT, "Result.code", "AUTH_FAILED")});
}

TEST_F(Members, PolicyOfASession) {
  check(start1("alice"), policy(GOOD));
  check(package1(), policy(GOOD));
  Scene one = challenge("grace");
  check(one, policy(GOOD));
  check(start1("alice"), {whole(OBJECT, "Result", missing("SessionId"))});
  check(one, {whole(OBJECT, "Result", missing("SessionId"))});
  const std::string mechanisms = "Result.Challenges.0.Mechanisms";
  for (const char* value : {"null", "[]"}) EXPECT_EQ(outcomeOf(one, to(mechanisms, value)), GOOD);
  for (const char* value : {"7", "true", "{}", R"("text")"}) {
    EXPECT_EQ(outcomeOf(one, to(mechanisms, value)), missing("Mechanisms")) << value;
  }
  check(start1("alice"),
        {optional(mechanisms + ".0.AnswerType", GOOD), optional(mechanisms + ".0.PromptSelectMech", GOOD),
         optional(mechanisms + ".0.PromptMechChosen", GOOD)});
  check(challenge("carol"),
        {optional(mechanisms + ".1.PartialDeviceAddress", GOOD), optional(mechanisms + ".2.PartialAddress", GOOD),
         strict(mechanisms + ".3.PartialPhoneNumber", missing("PartialPhoneNumber"), GOOD, GOOD),
         optional(mechanisms + ".6.Question", GOOD)});
}

TEST_F(Members, Redirect) {
  for (const char* value : {"null", "7", "true", "[]", "{}"}) {
    EXPECT_EQ(outcomeOf(start1("dave"), to("Result.PodFqdn", value)), missing("SessionId")) << value;
    EXPECT_EQ(outcomeOf(policy0("dave"), to("Result.PodFqdn", value)), missing("recId")) << value;
  }
  // User, port, path and what else is no name; as JSON, and as the message shows it.
  const std::vector<std::pair<std::string, std::string>> noHosts{
      {R"("")", ""},
      {R"("a b")", "a b"},
      {R"("x\r\nY: z")", R"(x\r\nY: z)"},
      {R"("host:port")", "host:port"},
      {R"("127.0.0.1:1")", "127.0.0.1:1"},
      {R"("localhost/path")", "localhost/path"},
      {R"("localhost?query")", "localhost?query"},
      {R"("localhost#part")", "localhost#part"},
      {R"("localhost\\part")", R"(localhost\part)"},
      {R"("user@localhost")", "user@localhost"},
      {R"("user:pass@localhost")", "user:pass@localhost"},
      {R"("localhost\u0000.example.test")", R"(localhost\x00.example.test)"},
      {R"("p\u00f6d.example.test")", "p\u00f6d.example.test"},
      {R"("[::1]")", "[::1]"},
      {'"' + std::string(254, 'a') + '"', std::string(100, 'a') + "..."},
  };
  for (const Scene& scene : {start1("dave"), policy0("dave")}) {
    for (const auto& [host, shown] : noHosts) {
      EXPECT_EQ(outcomeOf(scene, to("Result.PodFqdn", host)),
                "CloudException -1 The platform leads the login to '" + shown + "', which is no host name")
          << scene.name << " " << host.substr(0, 40);
    }
  }
}

TEST_F(Members, StepsOfASession) {
  check(answer1(), {whole(OBJECT, "Result", missing("Summary")),
                    strict("Result.Summary", missing("Summary"), "AUTH_FAILED", "AUTH_FAILED")});
  check(proof(), {whole(OBJECT, "Result", missing("Summary"))});
  EXPECT_EQ(outcomeOf(answer1(), to("Result.Summary", "\"NewPackage\"")), missing("SessionId"));
  EXPECT_EQ(outcomeOf(answer1(), to("Result.Summary", "\"loginsuccess\"")), "AUTH_FAILED");
}

TEST_F(Members, PrivilegedAction) {
  const std::string failed = "AUTH_FAILED";
  const std::string unknown = "AUTH_REQUEST_FAILED";
  check(visit("bob"), {whole(TEXT, "ErrorID", failed), whole(OBJECT, "Result", failed)});
  check(visit("bob"), {{TEXT, "Result.ChallengeId", failed, failed, failed, unknown}});
  check(visit("erin"), {whole(TEXT, "Result.Reason", failed)});
  check(revisit(), {whole(OBJECT, "Result", "AUTH_DONE")});
  for (const Scene& scene : {sso(), impersonate()}) check(scene, {whole(OBJECT, "Result", "AUTH_DONE")});
}

TEST_F(Members, SignInWithoutACookie) {
  EXPECT_EQ(outcomeOf(sso(), R"("no-cookie":true)"), "AUTH_NO_MACHINE_ACCESS");
  EXPECT_EQ(outcomeOf(impersonate(), R"("no-cookie":true)"), "AUTH_FAILED");
}

TEST_F(Members, ConnectorsReply) {
  const std::string sign = "CloudIwaException 9 ";
  const std::string inside = sign + "Internal error. Error message: Errors in parsing result from Json: ";
  const std::string noObject = sign + "There's no valid json string in SiteCheck response. Can't find ";
  const std::string refused = "AUTH_NO_MACHINE_ACCESS";
  struct Row {
    std::string body;
    std::string outcome;
  };
  const std::vector<Row> rows{
      {"", noObject + "'{'."},
      {"<html></html>", noObject + "'{'."},
      {"}{", noObject + "'}'."},
      {"{", noObject + "'}'."},
      {"{}", inside + "'result' does NOT exist"},
      {"{result}", inside + "'result' does NOT exist"},
      {R"({\"otc\":\"OTC-0\"})", inside + "'result' does NOT exist"},
      {R"({\"result\":7,\"otc\":\"OTC-0\"})", inside + "'result' does NOT exist"},
      {R"({\"result\":\"\",\"otc\":\"OTC-0\"})", sign + "SiteCheck result is not 'success'()."},
      {R"({\"result\":\"no\",\"otc\":\"OTC-0\"})", sign + "SiteCheck result is not 'success'(no)."},
      {R"({\"result\":\"success\"})", inside + "'otc' does NOT exist"},
      {R"({\"result\":\"success\",\"otc\":null})", inside + "'otc' does NOT exist"},
      {R"({\"result\":\"success\",\"otc\":[\"OTC-0\"]})", inside + "'otc' does NOT exist"},
      {R"({\"result\":\"success\",\"otc\":\"\"})", refused},
      {R"({\"result\":\"success\",\"otc\":\"OTC-0\"})", refused},
      {R"({\"result\":\"success\",\"otc\":\")" + std::string(100000, 'x') + R"(\"})", refused},
      {R"({\"result\":\"success\",\"otc\":\"OTC-0 \\r\\nX: y\"})", refused},
  };
  for (const auto& [body, outcome] : rows) {
    EXPECT_EQ(outcomeOf(siteCheck(), R"("body":")" + body + "\""), outcome) << body.substr(0, 60);
  }
  const std::string tooLong =
      outcomeOf(siteCheck(), R"("body":"{\"result\":\")" + std::string(100000, 'x') + R"(\",\"otc\":\"OTC-0\"}")");
  EXPECT_EQ(tooLong.size(), sign.size() + 511);
}

// Another's session was open already; what is done in it is refused, and the other one goes on.
TEST_F(Members, AnothersSession) {
  struct Row {
    Scene scene;
    std::string mechanism;
    std::string text;
    std::string begun;  // what the foreign reply leads to
  };
  const std::vector<Row> rows{{start1("bob"), "UP", "bob-Pass1", GOOD},
                              {policy0("alice"), "UP", "alice-Pass1", GOOD},
                              {challenge("grace"), "SQ", "Rex", GOOD},
                              {visit("grace"), "", "", "AUTH_REQUEST_FAILED"}};
  for (const Row& row : rows) {
    const bool isOldest = row.scene.endpoint == "GetAuthPolicy";
    platform.reset();
    std::unique_ptr<CloudAuth> other = isOldest ? std::unique_ptr<CloudAuth>(client<Client0>("0", "heidi"))
                                                : std::unique_ptr<CloudAuth>(client<Client1>("1.0", "heidi"));
    if (row.scene.endpoint == "mfalogin") other = client1S("carol", PROFILE_LOGIN, "");
    ASSERT_EQ(other->startAuthentication(), AUTH_NEXT_CHALLENGE);
    other->releaseCurl();
    std::unique_ptr<CloudAuth> login = row.scene.prepare();
    platform.fault(faultText(row.scene, R"("foreign":true)"));
    std::string outcome = outcomeOf(row.scene, *login);
    EXPECT_EQ(outcome, row.begun) << row.scene.name;
    if (!row.mechanism.empty()) {
      EXPECT_EQ(act(row.mechanism, ACTION_ANSWER, row.text)(*login), AUTH_FAILED) << row.scene.name;
      other->getCurl("heidi", "login");
      EXPECT_EQ(act("UP", ACTION_ANSWER, "heidi-Pass1")(*other), AUTH_NEXT_CHALLENGE) << row.scene.name;
    }
    other.reset();
    end(row.scene, login, outcome);
  }
}

TEST_F(Members, LongLists) {
#ifdef FERRO_SANITIZED
  constexpr double SECONDS = 60;
#else
  constexpr double SECONDS = 5;
#endif
  const auto list = [](const std::string& element) {
    std::string text = "[" + element;
    for (int i = 1; i < 100000; ++i) text += "," + element;
    return text + "]";
  };
  const std::string mechanism = R"({"MechanismId":"m","Name":"PF","PartialPhoneNumber":"1"})";
  struct Row {
    Scene scene;
    std::string path;
    std::string element;
    std::string outcome;
  };
  const std::vector<Row> rows{
      {start1("alice"), "Result.Challenges", R"({"Mechanisms":[)" + mechanism + "]}", GOOD},
      {start1("alice"), "Result.Challenges.0.Mechanisms", mechanism, GOOD},
      {start1("alice"), "Result.Challenges", "7", missing("Mechanisms")},
      {policy0(), "Result.mechs", R"({"mechId":"SQ","required":"False"})", GOOD},
      {visit("bob"), "Result.ChallengeId", R"("C")", "AUTH_FAILED"},
  };
  for (const Row& row : rows) {
    std::unique_ptr<CloudAuth> login = begin(row.scene);
    platform.fault(faultText(row.scene, to(row.path, list(row.element))));
    const std::clock_t begun = std::clock();  // the processor's: other processes may have it meanwhile
    const std::string outcome = outcomeOf(row.scene, *login);
    const double took = static_cast<double>(std::clock() - begun) / CLOCKS_PER_SEC;
    EXPECT_EQ(outcome, row.outcome) << row.path;
    EXPECT_LT(took, SECONDS) << row.path;
    end(row.scene, login, outcome);
  }
}

// Depth costs neither stack nor time; beyond a million levels a text is no JSON.
TEST_F(Members, DeepReplies) {
  const std::string deep(50000, '[');
  const std::string body = R"("body":"{\"success\":true,\"Result\":)" + deep + std::string(deep.size(), ']') + "}\"";
  EXPECT_EQ(outcomeOf(start1("alice"), body), missing("SessionId"));
  EXPECT_EQ(outcomeOf(answer1(), body), missing("Summary"));
  EXPECT_EQ(outcomeOf(start1("alice"), R"("body":"{\"success\":true,\"Result\":)" + deep + "\""), start1().refused);
}

TEST_F(Members, SessionAfterABadReply) {
  const auto open = client<Client1>("1.0", "bob");
  platform.fault(R"({"endpoint":"StartAuthentication","set":"Result.Version","to":"2.0"})");
  EXPECT_EQ(failureOf([&] { open->startAuthentication(); }), POLICY + "'Version' = '2.0' but NOT V1");
  EXPECT_EQ(open->sessionId, "S000001") << "the reply's, though its policy is of no use";
  EXPECT_EQ(open->tenantId, "LAB0001");
  EXPECT_TRUE(open->challenges.empty());
  platform.fault(R"({"endpoint":"StartAuthentication","remove":"Result.Challenges.1.Mechanisms.0.Name"})");
  EXPECT_EQ(failureOf([&] { open->startAuthentication(); }), missing("Name"));
  EXPECT_EQ(open->challenges.size(), 1U) << "those before the bad one";
  ASSERT_EQ(open->startAuthentication(), AUTH_NEXT_CHALLENGE);
  platform.fault(R"({"endpoint":"AdvanceAuthentication","status":503})");
  EXPECT_EQ(act("UP", ACTION_ANSWER, "bob-Pass1")(*open), AUTH_FAILED);
  EXPECT_EQ(open->sessionId, "S000003");
  EXPECT_FALSE(open->challenges[0].done) << "the platform was not reached";
  EXPECT_EQ(act("UP", ACTION_ANSWER, "wrong")(*open), AUTH_FAILED);
  EXPECT_TRUE(open->challenges[0].done) << "its word was Failure";
}
