// The control commands, in the process, at the control port and of the program.
#include <future>
#include <thread>

#include "lab/platform/platform_control_server.h"
#include "lab/platform/tests/platform_client.h"
#include "testsupport/process.h"

namespace ferrolab {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class PlatformControl : public PlatformTest {};

TEST_F(PlatformControl, RefusesWithWords) {
  const std::vector<std::pair<std::string, std::string>> rows{
      {"", "the command, line 1: The document is empty."},
      {"{}", "the command needs 'command'"},
      {R"({"command":"dance"})", "there is no command 'dance'"},
      {R"({"command":"approve"})", "the command needs 'user'"},
      {R"({"command":"approve","user":"nobody"})", "there is no user 'nobody'"},
      {R"({"command":"deny","user":"bob"})", "'bob' is asked nothing"},
      {R"({"command":"expire","what":"time"})", "'what' has to be machine, user or all"},
      {R"({"command":"advance-clock"})", "the command needs 'seconds'"},
      {R"({"command":"mint-code","machine":1})", "'machine' has to be a text"},
      {R"({"command":"user","user":{"name":"bob","pasword":"x"}})", "user 'bob': 'pasword' is unknown"},
      {R"({"command":"script","script":{"users":1}})", "'policies' has to be an object"},
      {R"({"command":"fault","endpoint":"sso"})", "the fault does not say what to do"},
  };
  for (const auto& [command, words] : rows) {
    EXPECT_EQ(platform.control(command), R"({"ok":false,"error":)" + quoted(words) + "}");
  }
}

TEST_F(PlatformControl, ToldIsWhatCame) {
  client.cookie = ".ASPXAUTH=a; .ASPXAUTH=b";
  client.get("security/GetAuthPolicy?elevate=undefined&user=alice");
  client.post("qrsintegration/LogPrivEvent", "{}");
  EXPECT_EQ(platform.control(R"({"command":"requests","endpoint":"qrsintegration/LogPrivEvent"})"),
            R"({"ok":true,"requests":[{"connection":0,"host":")" + platform.url().substr(7, platform.url().size() - 8) +
                R"(","method":"POST","endpoint":"qrsintegration/LogPrivEvent","query":"","body":"{}",)"
                R"("cookie":"a, b","status":401}]})");
  const auto requests = platform.requests();
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[0].query, "elevate=undefined&user=alice");
  EXPECT_THAT(platform.calls(), ElementsAre("GET security/GetAuthPolicy", "POST qrsintegration/LogPrivEvent"));
  EXPECT_EQ(platform.connections(), 1);
  client.cookie = machineCookie();
  client.post("qrsintegration/LogPrivEvent", R"({"a":"b"})");
  EXPECT_EQ(platform.control(R"({"command":"events"})"), R"({"ok":true,"events":[{"a":"b"}]})");
  EXPECT_EQ(platform.control(R"({"command":"surprises"})"), R"({"ok":true,"surprises":[]})");
  EXPECT_EQ(platform.control(R"({"command":"status"})"),
            R"({"ok":true,"requests":4,"events":1,"surprises":0,"faults":0})");
  EXPECT_EQ(platform.control(R"({"command":"events","forget":true})"), R"({"ok":true,"events":[{"a":"b"}]})");
  EXPECT_EQ(platform.control(R"({"command":"events"})"), R"({"ok":true,"events":[]})");
  platform.control(R"({"command":"requests","endpoint":"sysinfo/version","forget":true})");
  EXPECT_EQ(platform.control(R"({"command":"requests"})"), R"({"ok":true,"requests":[]})");
  client.get("nowhere");
  EXPECT_EQ(platform.control(R"({"command":"surprises","forget":true})"),
            R"({"ok":true,"surprises":["GET nowhere: there is no such endpoint"]})");
  EXPECT_EQ(platform.control(R"({"command":"surprises"})"), R"({"ok":true,"surprises":[]})");
  reset();
  EXPECT_EQ(platform.control(R"({"command":"status"})"),
            R"({"ok":true,"requests":0,"events":0,"surprises":0,"faults":0})");
}

TEST_F(PlatformControl, ApprovalWaitsForTheQuestion) {
  const auto approving =
      std::async(std::launch::async, [this] { platform.approve("frank", std::chrono::seconds(20)); });
  client.start("frank");
  client.startOob("S000001.0.OTP");
  approving.wait();
  EXPECT_EQ(client.poll("S000001.0.OTP").at("Result.Summary"), "LoginSuccess");
  EXPECT_THROW(platform.approve("frank"), std::invalid_argument);
}

TEST_F(PlatformControl, UsersAndScriptsAreChangedAndReset) {
  platform.user(R"({"name":"alice","password":"other"})");
  client.start("alice");
  EXPECT_EQ(client.answer("S000001.0.UP", "other").at("Result.Summary"), "LoginSuccess");
  reset();
  client.start("alice");
  EXPECT_EQ(client.answer("S000001.0.UP", "alice-Pass1").at("Result.Summary"), "LoginSuccess");
  const std::string script =
      R"({"policies":{"p":{"challenges":[["UP"]]}},"users":[{"name":"u","login":"p"}],"machines":{}})";
  EXPECT_EQ(platform.control(R"({"command":"script","script":)" + script + "}"), R"({"ok":true})");
  EXPECT_EQ(client.start("alice").at("ErrorID"), "UnknownUser");
  EXPECT_EQ(client.start("u").at("Result.SessionId"), "S000001");
}

TEST_F(PlatformControl, ThePortTakesCommandsAndMintsCodes) {
  const PlatformControlServer server(platform);
  const std::string base = server.url().substr(0, server.url().rfind('/') + 1);
  Client control(base);
  EXPECT_EQ(control.post("control", R"({"command":"status"})").body,
            "{\"ok\":true,\"requests\":0,\"events\":0,\"surprises\":0,\"faults\":0}\n");
  EXPECT_EQ(control.get("control").status, 405);
  EXPECT_EQ(control.get("other").status, 404);
  EXPECT_THAT(control.get("iwa/SiteCheck").body, HasSubstr("'' is no machine of this tenant"));
  control.headers.push_back("X-Remote-User: HOST1$@CORP.FERRO.TEST");
  EXPECT_EQ(server.siteCheckUrl(), base + "iwa/SiteCheck");
  EXPECT_THAT(control.get("iwa/SiteCheck").body, HasSubstr(R"({"result":"success","otc":"OTC-000001"})"));
}

// Sessions do not know of each other, whoever waits for whom.
TEST_F(PlatformControl, TwoHundredLoginsOnEightThreads) {
  std::vector<std::future<int>> threads;
  for (int i = 0; i < 8; ++i) {
    threads.push_back(std::async(std::launch::async, [this] {
      Client own(platform.url());
      int done = 0;
      for (int login = 0; login < 25; ++login) {
        const std::string session = own.start("auto").at("Result.SessionId");
        own.answer(session + ".0.UP", "auto-Pass1");
        own.startOob(session + ".1.OTP");
        own.poll(session + ".1.OTP");
        done += own.poll(session + ".1.OTP").at("Result.Summary") == "LoginSuccess" ? 1 : 0;
      }
      return done;
    }));
  }
  int done = 0;
  for (auto& thread : threads) done += thread.get();
  EXPECT_EQ(done, 200);
  EXPECT_EQ(platform.requests().size(), 1000U);
}

TEST(PlatformRecord, CanBeLeftOut) {
  PlatformOptions options;
  options.keepsRecord = false;
  PlatformSimulator platform(options);
  Client client(platform.url());
  client.cookie = ".ASPXAUTH=" + client.get("security/sso?OneTimePass=" + platform.mintCode("HOST1$")).cookie() + ";";
  EXPECT_TRUE(client.post("qrsintegration/LogPrivEvent", "{}").succeeded());
  EXPECT_THAT(platform.requests(), IsEmpty());
  EXPECT_THAT(platform.events(), IsEmpty());
  EXPECT_EQ(platform.eventCount(), 1);
}

TEST(PlatformRecord, APodMayBeANameOfTheSameListener) {
  PlatformOptions options;
  options.podHost = "127.0.0.1";
  PlatformSimulator platform(options);
  Client client(platform.url());
  EXPECT_EQ(client.start("dave").at("Result.PodFqdn"), "127.0.0.1");
  client.headers.push_back("Host: 127.0.0.1");
  EXPECT_EQ(client.start("dave").at("Result.PodFqdn"), "");
  EXPECT_THAT(platform.surprises(), IsEmpty());
}

TEST(PlatformRecord, AnImpossiblePortIsToldAtOnce) {
  PlatformOptions options;
  options.address = "not an address";
  EXPECT_THROW(PlatformSimulator{options}, std::runtime_error);
  options = {};
  options.script = "{";
  EXPECT_THROW(PlatformSimulator{options}, std::invalid_argument);
}

TEST(PlatformProgram, SaysWhatIsWrongWithItsOptions) {
  const auto run = [](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), FERRO_PLATFORM_SIMULATOR);
    return testsupport::run(arguments);
  };
  EXPECT_EQ(run({"--port=65536"}).status, 2);
  EXPECT_THAT(run({"--port=x"}).err, testing::StartsWith("platform_simulator: 'x' is no port\nusage: "));
  EXPECT_THAT(run({"--certificate=x"}).err, HasSubstr("--certificate and --key go together"));
  EXPECT_THAT(run({"more"}).err, HasSubstr("what is 'more'?"));
  EXPECT_EQ(run({"--nothing"}).status, 2);
  const auto result = run({"--script=/nonexistent"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "platform_simulator: cannot read /nonexistent\n");
}

}  // namespace
}  // namespace ferrolab
