// Privilege events: stored at once, sent by the queue, given up where the platform or the session fails.
#include <algorithm>
#include <boost/make_shared.hpp>
#include <ctime>
#include <future>
#include <thread>

#include "basalt/run_queue.h"
#include "cloud/opx_handler.h"
#include "cloud/tests/opx_processor_fixture.h"

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

// Holds the thread of a queue until it is let go.
class Block : public lumo::QueueAble {
 public:
  explicit Block(std::shared_future<void> until) : m_until(std::move(until)) {}
  void run() override { m_until.wait(); }

 private:
  std::shared_future<void> m_until;
};

// Tells when the queue has come to it.
class Reach : public lumo::QueueAble {
 public:
  explicit Reach(std::promise<void>& reached) : m_reached(reached) {}
  void run() override { m_reached.set_value(); }
  // Behind what is due by now.
  long getTimeout() const override { return std::time(nullptr); }

 private:
  std::promise<void>& m_reached;
};

class OpxEventsLoopback : public OpxTest {
 protected:
  ~OpxEventsLoopback() override { lumo::RunQueue::shutdownAll(); }

  static void store(std::initializer_list<const char*> users) {
    for (const char* user : users) lumo::OPXProcessor::handleLogPrivEvent(event(user));
  }
  void run() { access.processor.postLogPrivEvent(); }
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
  EXPECT_EQ(logged().back(),
            "DEBUG Got CURL exception: curl error occurred in curl_easy_perform: Transferred a partial file (18)");
  EXPECT_EQ(access.machineCookie, "m-1");
  EXPECT_EQ(access.waiting(), 3U);
  script({json(SUCCESS), json(SUCCESS), json(SUCCESS)});
  run();
  EXPECT_THAT(asked(), ElementsAre(sent(body("a")), sent(body("b")), sent(body("c")))) << "the first one again";
  EXPECT_EQ(access.waiting(), 0U);
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
  std::promise<void> letGo;
  const auto queue = lumo::RunQueue::getRunQueue(lumo::OPX_RUN_QUEUE, true, 1);
  queue->enqueue(boost::make_shared<Block>(letGo.get_future().share()));
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
  letGo.set_value();
  // The items behind the ten events, and then this one.
  std::promise<void> reached;
  queue->enqueue(boost::make_shared<Reach>(reached));
  reached.get_future().wait();
  EXPECT_THAT(asked(), testing::ElementsAreArray(expected));
  const std::vector<std::string> said = logged();
  EXPECT_EQ(std::count(said.begin(), said.end(), RUNS), 10);
  EXPECT_EQ(said.back(), RUNS) << "the last nine find nothing to do";
}

TEST_F(OpxEventsLoopback, ADisabledProcessorLeavesTheEvents) {
  store({"a"});
  const SettingsScope off{{"ferrod.cloud.log.privevent", "false"}};
  lumo::OPXHandler(0).run();
  EXPECT_EQ(access.waiting(), 1U);
  EXPECT_THAT(logged(), IsEmpty());
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
  std::promise<void> letGo;
  std::promise<void> begun;
  const auto queue = lumo::RunQueue::getRunQueue(lumo::OPX_RUN_QUEUE, true, 1);
  queue->enqueue(boost::make_shared<Block>(letGo.get_future().share()));
  std::thread end([&] {
    begun.set_value();
    queue->shutdown();
  });
  begun.get_future().wait();
  while (failureOf([&] { queue->enqueue(boost::make_shared<lumo::OPXHandler>(0)); }) == "nothing thrown") {
    std::this_thread::yield();
  }
  logged();
  store({"a"});
  EXPECT_THAT(logged(), IsEmpty());
  EXPECT_EQ(access.waiting(), 1U);
  letGo.set_value();
  end.join();
}

TEST(OpxHandler, IsOneItemForEachEvent) {
  const lumo::OPXHandler item(1000);
  EXPECT_FALSE(item.dedupMe());
  EXPECT_EQ(item.getID(), "OPXHandler");
  EXPECT_EQ(item.getTimeout(), 1000);
  EXPECT_FALSE(item.periodic());
  EXPECT_FALSE(item.keepQueuedItem(1000));
  EXPECT_TRUE(item.keepQueuedItem(1001));
  EXPECT_EQ(item.getRandomDelay(), 0);
}
