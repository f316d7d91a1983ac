// Privilege events: stored at once, sent by the queue, given up where the platform or the session fails.
#include <algorithm>
#include <functional>
#include <stdexcept>
#include <thread>

#include "cloud/events/opx_handler.h"
#include "cloud/events/tests/opx_processor_fixture.h"
#include "cloud/events/tests/opx_queue.h"
#include "cloud/http/tests/curl_words.h"
#include "testsupport/manual_clock.h"
#include "testsupport/watched_clock.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using Event = lumo::OPXProcessor::Event;

const std::string RUNS = "DEBUG postLogPrivEvent() runs...";
constexpr const char* GIVES_UP = "DEBUG LogPrivEvent: unknown failure, give up such sending.";
constexpr const char* REFETCHES = "DEBUG LogPrivEvent: machine cookie expired, will refetch";

Event event(const std::string& user) { return {{"User", user}, {"Command", "/bin/id"}}; }
std::string body(const std::string& user) { return R"({"User":")" + user + R"(","Command":"/bin/id"})"; }

class OpxEventsLoopback : public OpxTest {
 protected:
  static void store(std::initializer_list<const char*> users) {
    for (const char* user : users) lumo::OPXProcessor::handleLogPrivEvent(event(user));
  }
  void run() { access.processor.postLogPrivEvent(); }
  // Without a sign-in, which would drop what waits.
  void haveASession() {
    access.processor.cloudSetup();
    access.connection()->setOpt(CURLOPT_CAINFO, access.certStore);
    access.machineCookie = "m-1";
  }
};

}  // namespace

TEST_F(OpxEventsLoopback, WithoutEventsNothingIsAsked) {
  run();
  EXPECT_THAT(asked(), IsEmpty());
  EXPECT_THAT(connectorAsked(), IsEmpty());
  EXPECT_THAT(logged(), ElementsAre(RUNS));
}

TEST_F(OpxEventsLoopback, TheFirstIsLostToTheSignInAndTheSecondIsSent) {
  script({session(), json(SUCCESS)});
  store({"first"});
  run();
  EXPECT_THAT(asked(), ElementsAre(SSO));
  EXPECT_THAT(logged(), Contains("DEBUG Machine cookie not ready, will fetch"));
  EXPECT_EQ(access.waiting(), 0U);
  store({"second"});
  run();
  EXPECT_THAT(asked(), ElementsAre(sent(body("second"))));
  EXPECT_EQ(cookies.back(), ".ASPXAUTH=m-1;");
  EXPECT_THAT(logged(),
              ElementsAre(RUNS, "DEBUG process a privilege event", "DEBUG HTTP code = 200",
                          "TRACE HTTP response: {\"success\":true}", "DEBUG LogPrivEvent: result = 1, httpCode = 200"));
  EXPECT_EQ(access.waiting(), 0U);
}

TEST_F(OpxEventsLoopback, WhatComesDuringTheSignInIsSentBehindIt) {
  duringRequest = [this] {
    if (cookies.size() == 1) store({"during"});
  };
  script({session(), json(SUCCESS)});
  store({"first"});
  run();
  EXPECT_THAT(asked(), ElementsAre(SSO, sent(body("during"))));
  EXPECT_EQ(cookies.back(), ".ASPXAUTH=m-1;");
  EXPECT_EQ(access.waiting(), 0U);
}

TEST_F(OpxEventsLoopback, WhatComesDuringASignInThatIsRefusedMeetsNoSession) {
  duringRequest = [this] {
    if (cookies.size() == 1) store({"during"});
  };
  script({json("", "403 Forbidden"), json("", "401 Unauthorized"), session()});
  store({"first"});
  run();
  EXPECT_THAT(asked(), ElementsAre(SSO, sent(body("during")), SSO)) << "the code is still there";
  EXPECT_THAT(cookies, ElementsAre("", ".ASPXAUTH=;", ".ASPXAUTH=;"));
  EXPECT_EQ(access.machineCookie, "m-1");
  EXPECT_EQ(access.waiting(), 0U);
}

TEST_F(OpxEventsLoopback, AnEventIsWrittenAsItStands) {
  signIn();
  script({json(SUCCESS), json(SUCCESS), json(SUCCESS)});
  lumo::OPXProcessor::handleLogPrivEvent({});
  lumo::OPXProcessor::handleLogPrivEvent({{"z", "1"}, {"a", "\"ü\n"}, {"z", "2"}, {"", ""}});
  run();
  EXPECT_THAT(asked(), ElementsAre(sent("{}"), sent(R"({"z":"1","a":"\"ü\n","z":"2","":""})")));
}

TEST_F(OpxEventsLoopback, AnExpiredSessionCostsOneEventWhereTheCodeIsStillThere) {
  script({session("m-1", R"({"success":true,"otc":"c-2"})")});
  access.processor.initProc(PLATFORM);
  asked();
  logged();
  script({json("", "401 Unauthorized"), session("m-2"), json(SUCCESS), json(SUCCESS)});
  store({"a", "b", "c"});
  run();
  EXPECT_THAT(asked(),
              ElementsAre(sent(body("a")), "GET /security/sso?OneTimePass=c-2", sent(body("b")), sent(body("c"))));
  EXPECT_THAT(cookies, ElementsAre("", ".ASPXAUTH=m-1;", ".ASPXAUTH=m-1;", ".ASPXAUTH=m-2; .ASPXAUTH=m-1;",
                                   ".ASPXAUTH=m-2; .ASPXAUTH=m-1;"))
      << "the new session rests on the cookie engine";
  const std::string good = "TRACE HTTP response: {\"success\":true}";
  const std::string ok = "DEBUG HTTP code = 200";
  EXPECT_THAT(logged(), ElementsAre(RUNS, "DEBUG process a privilege event", "DEBUG HTTP code = 401",
                                    "DEBUG LogPrivEvent: result = 0, httpCode = 401", REFETCHES, ok, good,
                                    "DEBUG sso: result = 1, httpCode = 200", ok, good,
                                    "DEBUG LogPrivEvent: result = 1, httpCode = 200", ok, good,
                                    "DEBUG LogPrivEvent: result = 1, httpCode = 200"));
  EXPECT_EQ(access.machineCookie, "m-2");
  EXPECT_EQ(access.waiting(), 0U);
  EXPECT_THAT(connectorAsked(), ElementsAre("GET /iwa/SiteCheck")) << "that of the sign-in alone";
}

TEST_F(OpxEventsLoopback, AnExpiredSessionWithoutACodeKeepsTheEventsForTheNextSignIn) {
  signIn();
  script({json("", "401 Unauthorized"), json(SUCCESS)});
  store({"a", "b", "c"});
  run();
  EXPECT_THAT(asked(), ElementsAre(sent(body("a"))));
  EXPECT_THAT(logged(), Contains("DEBUG Got exception: Errors in parsing result from Json: 'otc' does NOT exist"));
  EXPECT_EQ(access.machineCookie, "");
  EXPECT_EQ(access.waiting(), 3U);
  script({session("m-2")});
  run();
  EXPECT_THAT(asked(), ElementsAre(SSO)) << "which drops them";
  EXPECT_EQ(access.waiting(), 0U);
}

TEST_F(OpxEventsLoopback, ASessionThatIsNotRenewedIsNoneForTheNextSignIn) {
  script({session("m-1", R"({"success":true,"otc":"c-2"})")});
  access.processor.initProc(PLATFORM);
  asked();
  script({json("", "401 Unauthorized"), json("", "403 Forbidden"), json(SUCCESS), json(SUCCESS)});
  store({"a", "b", "c"});
  run();
  EXPECT_THAT(asked(),
              ElementsAre(sent(body("a")), "GET /security/sso?OneTimePass=c-2", sent(body("b")), sent(body("c"))))
      << "the others are tried all the same";
  EXPECT_EQ(access.machineCookie, "");
  EXPECT_EQ(access.waiting(), 0U);
  script({session("m-2")});
  store({"d"});
  run();
  EXPECT_THAT(asked(), ElementsAre(SSO));
  EXPECT_EQ(access.machineCookie, "m-2");
}

TEST_F(OpxEventsLoopback, ARenewalWhoseTransferFailsKeepsTheEventsForTheNextSignIn) {
  script({session("m-1", R"({"success":true,"otc":"c-2"})")});
  access.processor.initProc(PLATFORM);
  asked();
  logged();
  script({json(R"({"success":true,"otc":"c-3"})"), json("", "401 Unauthorized"), cut(), json(SUCCESS)});
  store({"a", "b", "c"});
  run();
  EXPECT_THAT(asked(), ElementsAre(sent(body("a")), sent(body("b")), "GET /security/sso?OneTimePass=c-3"));
  EXPECT_EQ(logged().back(), "DEBUG Got CURL exception: " + curltest::transferFailed(CURLE_PARTIAL_FILE));
  EXPECT_EQ(access.machineCookie, "");
  EXPECT_EQ(access.waiting(), 3U);
  script({session("m-2"), json(SUCCESS)});
  run();
  EXPECT_THAT(asked(), ElementsAre(SSO));
  EXPECT_EQ(access.waiting(), 0U) << "dropped by it";
  store({"d"});
  run();
  EXPECT_THAT(asked(), ElementsAre(sent(body("d"))));
}

TEST_F(OpxEventsLoopback, AnyOtherRefusalGivesUpTheRest) {
  for (const auto& refusal : {json("", "500 Internal Server Error"), json(R"({"success":false})"), json("no json"),
                              json("", "403 Forbidden")}) {
    signIn();
    script({refusal, json(SUCCESS), json(SUCCESS)});
    store({"a", "b", "c"});
    run();
    EXPECT_THAT(asked(), ElementsAre(sent(body("a")))) << refusal.bytes;
    EXPECT_EQ(logged().back(), GIVES_UP);
    EXPECT_EQ(access.machineCookie, "");
    EXPECT_EQ(access.waiting(), 0U);
  }
}

TEST_F(OpxEventsLoopback, AFailedTransferKeepsAllOfThem) {
  signIn();
  script({json(SUCCESS), cut(), json(SUCCESS)});
  store({"a", "b", "c"});
  run();
  EXPECT_THAT(asked(), ElementsAre(sent(body("a")), sent(body("b"))));
  EXPECT_EQ(logged().back(), "DEBUG Got CURL exception: " + curltest::transferFailed(CURLE_PARTIAL_FILE));
  EXPECT_EQ(access.machineCookie, "m-1");
  EXPECT_EQ(access.waiting(), 3U);
  script({json(SUCCESS), json(SUCCESS), json(SUCCESS)});
  run();
  EXPECT_THAT(asked(), ElementsAre(sent(body("a")), sent(body("b")), sent(body("c")))) << "the first one again";
  EXPECT_EQ(access.waiting(), 0U);
}

TEST_F(OpxEventsLoopback, WhatComesDuringASendingThatFailsWaitsBehindTheOthers) {
  signIn();
  duringRequest = [] { store({"late"}); };
  script({cut()});
  store({"a", "b"});
  run();
  EXPECT_THAT(asked(), ElementsAre(sent(body("a"))));
  duringRequest = nullptr;
  script({json(SUCCESS), json(SUCCESS), json(SUCCESS)});
  run();
  EXPECT_THAT(asked(), ElementsAre(sent(body("a")), sent(body("b")), sent(body("late"))));
}

TEST_F(OpxEventsLoopback, SendingAloneTakesNothingAway) {
  signIn();
  script({json(SUCCESS), json(SUCCESS)});
  store({"a"});
  access.processor.cloudLogPrivEvent();
  access.processor.cloudLogPrivEvent();
  EXPECT_THAT(asked(), ElementsAre(sent(body("a")), sent(body("a"))));
  EXPECT_EQ(access.waiting(), 1U);
}

TEST_F(OpxEventsLoopback, WhatComesDuringTheSendingGoesWithTheRest) {
  signIn();
  duringRequest = [] { store({"late"}); };
  script({json(SUCCESS)});
  store({"a"});
  run();
  EXPECT_THAT(asked(), ElementsAre(sent(body("a"))));
  EXPECT_EQ(access.waiting(), 0U);
}

TEST_F(OpxEventsLoopback, AnEventWithoutAQueueWaits) {
  store({"a"});
  EXPECT_EQ(access.waiting(), 1U);
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(OpxEventsLoopback, TenOfABurstGoOutInOneRun) {
  signIn();
  OpxQueue queue;
  queue.hold();
  script({json(SUCCESS), json(SUCCESS), json(SUCCESS), json(SUCCESS), json(SUCCESS), json(SUCCESS), json(SUCCESS),
          json(SUCCESS), json(SUCCESS), json(SUCCESS)});
  std::vector<std::string> expected;
  for (int i = 0; i < 10; ++i) {
    lumo::OPXProcessor::handleLogPrivEvent(event(std::to_string(i)));
    expected.push_back(sent(body(std::to_string(i))));
  }
  EXPECT_THAT(logged(), testing::ElementsAreArray(
                            std::vector<std::string>(10, "DEBUG Send out LogPrivEvent message to OPX handler")));
  EXPECT_THAT(asked(), IsEmpty()) << "nothing goes out on the caller's thread";
  queue.runDue();
  EXPECT_THAT(asked(), testing::ElementsAreArray(expected));
  const std::vector<std::string> said = logged();
  EXPECT_EQ(std::count(said.begin(), said.end(), RUNS), 10);
  EXPECT_EQ(said.back(), RUNS) << "the last nine find nothing to do";
}

TEST_F(OpxEventsLoopback, AnItemIsDueWhenItsEventCame) {
  signIn();
  script({json(SUCCESS)});
  testsupport::ManualClock clock;
  OpxQueue queue;
  queue.hold();
  const auto then = clock.now();
  store({"a"});
  clock.set(then - std::chrono::seconds(10));
  queue.letGo();
  EXPECT_TRUE(clock.awaitWaiting(std::chrono::system_clock::to_time_t(then)));
  EXPECT_THAT(asked(), IsEmpty());
  clock.set(then);
  queue.runDue();
  EXPECT_THAT(asked(), ElementsAre(sent(body("a"))));
}

TEST_F(OpxEventsLoopback, AnEventWhoseItemCannotBeHadWaitsAndIsTold) {
  testsupport::WatchedClock clock;
  const OpxQueue queue;
  clock.onRead = [] { throw std::runtime_error("The clock is broken."); };
  store({"a"});
  clock.onRead = nullptr;
  EXPECT_THAT(logged(),
              ElementsAre("ERROR Failed to send out LogPrivEvent message to OPX handler: The clock is broken."));
  EXPECT_EQ(access.waiting(), 1U);
}

TEST_F(OpxEventsLoopback, ADisabledProcessorLeavesTheEvents) {
  store({"a"});
  const SettingsScope off{{"ferrod.cloud.log.privevent", "false"}};
  lumo::OPXHandler(0).run();
  EXPECT_EQ(access.waiting(), 1U);
  EXPECT_THAT(logged(), IsEmpty());
  const SettingsScope on{{"ferrod.cloud.log.privevent", "true"}};
  haveASession();
  script({json(SUCCESS)});
  lumo::OPXHandler(0).run();
  EXPECT_THAT(asked(), ElementsAre(sent(body("a")))) << "a later item sends them";
}

TEST_F(OpxEventsLoopback, AProcessorThatIsNotReadyLeavesTheEvents) {
  store({"a"});
  lumo::OPXProcessor::destroyProcessor();
  lumo::OPXHandler(0).run();
  EXPECT_EQ(access.waiting(), 1U);
}

TEST_F(OpxEventsLoopback, AfterASignInThatFailedThereIsNothingToSend) {
  connectorSays(json("", "403 Forbidden"));
  store({"a"});
  run();
  EXPECT_THAT(asked(), IsEmpty());
  EXPECT_EQ(access.waiting(), 0U);
  EXPECT_THAT(logged(), ElementsAre(RUNS, "DEBUG Machine cookie not ready, will fetch",
                                    "DEBUG Set CURL web proxy to: '" + server.address() + "' with auth: ''.",
                                    "DEBUG siteCheck: URL = " + siteCheckUrl() + ", SPN = , httpCode = 403",
                                    "DEBUG siteCheck: httpCode not OK : 403",
                                    "DEBUG Got exception: Errors in parsing result from Json: 'otc' does NOT exist",
                                    "DEBUG OPXProcessor: initProc completes", "DEBUG process a privilege event"));
}

TEST_F(OpxEventsLoopback, AQueueThatShutsDownIsNoFailure) {
  testsupport::WatchedClock clock;
  OpxQueue queue;
  // It was there when the event came, and takes no item any more.
  clock.onRead = [&queue] { queue.queue().shutdown(); };
  store({"a"});
  clock.onRead = nullptr;
  EXPECT_THAT(logged(), IsEmpty());
  EXPECT_EQ(access.waiting(), 1U);
  store({"b"});
  EXPECT_THAT(logged(), IsEmpty());
  EXPECT_EQ(access.waiting(), 2U);
}

TEST_F(OpxEventsLoopback, AQueueThatShutsDownWaitsForOneExchangeAlone) {
  signIn();
  OpxQueue queue;
  std::thread end;
  duringRequest = [&queue, &end] {
    if (end.joinable()) return;
    end = std::thread([&queue] { queue.queue().shutdown(); });
    while (lumo::RunQueue::getRunQueue(lumo::OPX_RUN_QUEUE, false, 0)) std::this_thread::yield();
  };
  queue.hold();
  script({json(SUCCESS), json(SUCCESS), json(SUCCESS)});
  store({"a", "b", "c"});
  queue.letGo();
  ASSERT_TRUE(server.waitForRequests(1, std::chrono::seconds(20)));
  queue.queue().shutdown();
  end.join();
  EXPECT_THAT(asked(), ElementsAre(sent(body("a"))));
  EXPECT_EQ(logged().back(), "DEBUG Got exception: The queue 'opx' is shutting down.");
  EXPECT_EQ(access.waiting(), 3U);
}

TEST(OpxHandler, IsOneItemForEachEvent) {
  lumo::OPXHandler item(1000);
  EXPECT_FALSE(item.dedupMe());
  EXPECT_EQ(item.getID(), "OPXHandler");
  EXPECT_EQ(item.getTimeout(), 1000);
  EXPECT_FALSE(item.periodic());
  EXPECT_FALSE(item.keepQueuedItem(1000));
  EXPECT_TRUE(item.keepQueuedItem(1001));
  EXPECT_EQ(item.getRandomDelay(), 0);
  item.setTimeout(5);
  item.updateTimeout();
  EXPECT_EQ(item.getTimeout(), 1000);
}
