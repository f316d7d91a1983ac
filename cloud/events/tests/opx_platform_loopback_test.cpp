// Privilege events from the agent's threads to the platform simulator, which keeps what arrived.
#include <algorithm>
#include <map>
#include <thread>

#include "cloud/events/tests/opx_processor_access.h"
#include "cloud/events/tests/opx_queue.h"
#include "cloud/http/tests/curl_words.h"
#include "cloud/include/opx.h"
#include "cloud/login/tests/cloud_auth_platform.h"
#include "testsupport/log_capture.h"

namespace {

using platformtest::Texts;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using Event = lumo::OPXProcessor::Event;

constexpr int THREADS = 4;
constexpr int EVENTS = 25;  // of each thread

class OpxPlatformLoopback : public platformtest::PlatformTest {
 protected:
  OpxPlatformLoopback() {
    processor.platformUrl = platform.url();
    processor.certStore = shared->certificate.certificateFile;
    UpdateCloudHttpProxy();
  }

  static void store(const std::string& name) { lumo::OPXProcessor::handleLogPrivEvent({{"User", name}}); }
  static std::string body(const std::string& name) { return R"({"User":")" + name + R"("})"; }
  // The first event is lost to the sign-in.
  void signIn() {
    store("lost");
    queue.runDue();
    ASSERT_NE(processor.machineCookie, "");
    newRequests();
  }
  // Those of the platform since the last call.
  Texts newRequests() {
    Texts lines = requestsFrom(seen);
    seen += lines.size();
    return lines;
  }
  static std::string sent(const std::string& cookie, const std::string& name) {
    return "POST LogPrivEvent [" + cookie + "] " + body(name);
  }

  const SettingsScope connector{{"ferrod.cloud.iwa.url", connectorUrl()}};
  testsupport::LogCapture log;
  lumo::OPXProcessorAccess processor;
  OpxQueue queue;
  size_t seen = 0;
};

}  // namespace

TEST_F(OpxPlatformLoopback, EventsArriveToTheByteOverOneConnection) {
  store("lost");
  queue.runDue();
  EXPECT_THAT(newRequests(), ElementsAre("GET SiteCheck", "GET sso?OneTimePass=OTC-000001"));
  queue.hold();
  const std::vector<std::pair<Event, std::string>> events = {
      {{}, "{}"},
      {{{"User", "alice"}, {"Command", "/bin/id -u"}, {"Result", "0"}},
       R"({"User":"alice","Command":"/bin/id -u","Result":"0"})"},
      {{{"z", "1"}, {"a", "2"}, {"z", "1"}, {"z", ""}}, R"({"z":"1","a":"2","z":"1","z":""})"},
      {{{"", ""}}, R"({"":""})"},
      {{{"Größe", "日本 \xF0\x9F\x94\x91"}}, "{\"Größe\":\"日本 \xF0\x9F\x94\x91\"}"},
      {{{"q\"", "\\ / ' \" </x>"}}, R"({"q\"":"\\ / ' \" </x>"})"},
      {{{"c", std::string("\0\1\b\t\n\f\r\x1f\x7f", 9)}}, "{\"c\":\"\\u0000\\u0001\\b\\t\\n\\f\\r\\u001F\x7f\"}"},
      {{{"long", std::string(100000, 'x')}}, R"({"long":")" + std::string(100000, 'x') + "\"}"},
  };
  Texts bodies;
  Texts lines;
  for (const auto& [event, text] : events) {
    lumo::OPXProcessor::handleLogPrivEvent(event);
    bodies.push_back(text);
    lines.push_back("POST LogPrivEvent [" + processor.machineCookie + "] " + text);
  }
  queue.runDue();
  EXPECT_THAT(platform.events(), ElementsAreArray(bodies));
  EXPECT_THAT(newRequests(), ElementsAreArray(lines));
  int connection = -1;
  for (const auto& request : platform.requests()) {
    if (request.endpoint != "qrsintegration/LogPrivEvent") continue;
    if (connection < 0) connection = request.connection;
    EXPECT_EQ(request.connection, connection);
  }
  EXPECT_THAT(platform.surprises(), IsEmpty());
}

TEST_F(OpxPlatformLoopback, AnEndedSessionIsRenewedByASignInThatDropsWhatWaits) {
  signIn();
  const std::string first = processor.machineCookie;
  platform.expire("machine");
  queue.hold();
  store("a");
  store("b");
  queue.runDue();
  // The code was in the reply of the connector, not in that of the platform: there is none to renew the session with.
  // The second item signs in.
  EXPECT_THAT(newRequests(), ElementsAre(sent(first, "a"), "GET SiteCheck", "GET sso?OneTimePass=OTC-000003"));
  EXPECT_THAT(platform.events(), IsEmpty());
  EXPECT_EQ(processor.waiting(), 0U);
  store("c");
  queue.runDue();
  EXPECT_THAT(newRequests(), ElementsAre(sent(processor.machineCookie, "c")));
  EXPECT_THAT(platform.events(), ElementsAre(body("c")));
  EXPECT_NE(processor.machineCookie, first);
  EXPECT_THAT(platform.surprises(), IsEmpty());
}

TEST_F(OpxPlatformLoopback, ALostConnectionSendsAllOfThemAgain) {
  signIn();
  platform.fault(R"({"endpoint":"LogPrivEvent","cut":"body","after":1})");
  queue.hold();
  for (const char* name : {"a", "b", "c"}) store(name);
  queue.runDue();
  EXPECT_THAT(platform.events(), ElementsAre(body("a"), body("b"), body("a"), body("b"), body("c")))
      << "the second one had arrived";
  EXPECT_THAT(log.newTexts("OPX.processor"),
              Contains("DEBUG Got CURL exception: " + curltest::transferFailed(CURLE_PARTIAL_FILE)));
  EXPECT_EQ(processor.waiting(), 0U);
  EXPECT_THAT(platform.surprises(), IsEmpty());
}

TEST_F(OpxPlatformLoopback, ARefusalGivesUpTheRestAndTheNextSignInBeginsAnew) {
  for (const char* fault : {R"({"endpoint":"LogPrivEvent","status":500,"after":1})",
                            R"({"endpoint":"LogPrivEvent","refuse":{"ErrorID":"E"},"after":1})",
                            R"({"endpoint":"LogPrivEvent","empty":true,"after":1})"}) {
    platform.reset();
    seen = 0;
    signIn();
    const std::string cookie = processor.machineCookie;
    platform.fault(fault);
    queue.hold();
    for (const char* name : {"a", "b", "c"}) store(name);
    queue.runDue();
    EXPECT_THAT(newRequests(), ElementsAre(sent(cookie, "a"), sent(cookie, "b"))) << fault;
    EXPECT_EQ(processor.waiting(), 0U);
    EXPECT_EQ(processor.machineCookie, "");
    EXPECT_THAT(platform.surprises(), IsEmpty());
  }
}

TEST_F(OpxPlatformLoopback, AMachineThatGetsNoSessionLosesItsEvents) {
  platform.fault(R"({"endpoint":"sso","refuse":{"ErrorID":"E"},"count":0})");
  for (const char* name : {"a", "b"}) {
    store(name);
    queue.runDue();
  }
  EXPECT_THAT(newRequests(), ElementsAre("GET SiteCheck", "GET sso?OneTimePass=OTC-000001", "GET SiteCheck",
                                         "GET sso?OneTimePass=OTC-000002"));
  EXPECT_EQ(processor.waiting(), 0U);
}

TEST_F(OpxPlatformLoopback, ThreadsOfTheAgentStoreWhileTheQueueSends) {
  signIn();
  std::vector<std::thread> threads;
  for (int thread = 0; thread < THREADS; ++thread) {
    threads.emplace_back([thread] {
      for (int i = 0; i < EVENTS; ++i) {
        lumo::OPXProcessor::handleLogPrivEvent({{"T", std::to_string(thread)}, {"N", std::to_string(100 + i)}});
      }
    });
  }
  // The agent reads its configuration anew meanwhile.
  for (int i = 0; i < EVENTS; ++i) UpdateCloudHttpProxy();
  for (auto& thread : threads) thread.join();
  queue.runDue();
  EXPECT_EQ(processor.waiting(), 0U);
  std::map<char, std::string> last;
  for (const std::string& text : platform.events()) {
    ASSERT_EQ(text.size(), std::string(R"({"T":"0","N":"100"})").size()) << text;
    EXPECT_GT(text, last[text[6]]) << "once each, in the order of its thread";
    last[text[6]] = text;
  }
  EXPECT_THAT(last, Not(IsEmpty()));
  EXPECT_THAT(platform.surprises(), IsEmpty());
}
