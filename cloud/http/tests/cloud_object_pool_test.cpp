// What a connection is when it is handed out, and what of it stays when it comes back.
#include <cstdio>

#include "cloud/http/tests/cloud_object_pool_fixture.h"
#include "cloud/http/tests/curl_memory.h"
#include "cloud/http/tests/curl_words.h"

namespace {

using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::UnorderedElementsAre;

// More than libcurl takes for one text.
std::string tooLong() { return std::string(8000001, 'x'); }
const std::string REFUSED = "CurlException -1 " + curltest::setOptFailed(CURLE_BAD_FUNCTION_ARGUMENT);

}  // namespace

TEST_F(CurlPoolTest, FirstHandOutMakesAConnection) {
  access.pool.setProxy(proxyInfo("connector.example.test:8080"));
  CurlObject* curl = access.pool.getCurl("alice", "login");
  EXPECT_THAT(curl->headers,
              UnorderedElementsAre(Pair("Content-Type", "application/json"), Pair("X-MORVANE-NATIVE-CLIENT", "1"),
                                   Pair("X-MRV-SRC", "QRS"), Pair("X-TZOFF", "0")));
  EXPECT_EQ(curl->recordedOptions(), defaultsAnd({CURLOPT_PROXY, CURLOPT_HTTPPROXYTUNNEL}));
  EXPECT_EQ(access.occupiedCount, 1U);
  const CloudConnEntry& entry = access.connections.at(curl);
  EXPECT_TRUE(entry.occupied);
  EXPECT_EQ(entry.timestamp, now());
  EXPECT_EQ(entry.userName, "alice");
  EXPECT_EQ(entry.programName, "login");
  EXPECT_THAT(records(), ElementsAre("DEBUG Set cloud web proxy to: 'connector.example.test:8080' with auth: ''.",
                                     "DEBUG Set max CURL connections number to: 10.",
                                     "DEBUG Set max CURL connection occupied timeout to : 900(s).",
                                     "DEBUG Getting CURL connection for cloud auth.",
                                     "DEBUG Getting CURL connection with timezone offset: '0' ",
                                     "DEBUG Allocated new CURL connection:(0) for cloud auth.",
                                     "DEBUG Set CURL web proxy to: 'connector.example.test:8080' with auth: ''."));
}

TEST_F(CurlPoolTest, ReturnedConnectionIsHandedOutAgain) {
  limit(2);
  CurlObject* const first = access.pool.getCurl("alice", "login");
  first->headers["X-Extra"] = "kept";
  first->setOpt(CURLOPT_CAINFO, "/etc/own.pem");
  access.pool.releaseCurl(first);
  EXPECT_FALSE(access.connections.at(first).occupied);
  EXPECT_EQ(access.connections.at(first).userName, "alice") << "until the next hand-out";
  EXPECT_EQ(access.connections.at(first).timestamp, now());
  EXPECT_EQ(access.occupiedCount, 0U);

  const time_t before = now();
  clock.advance(seconds(100));
  EXPECT_EQ(access.connections.at(first).timestamp, before) << "not touched by the return";
  setenv("TZ", "IST-5:30", 1);
  access.pool.setProxy(proxyInfo("next.example.test:3128"));
  EXPECT_EQ(access.pool.getCurl("bob", "sudo"), first);
  const CloudConnEntry& entry = access.connections.at(first);
  EXPECT_TRUE(entry.occupied);
  EXPECT_EQ(entry.timestamp, before + 100);
  EXPECT_EQ(entry.userName, "bob");
  EXPECT_EQ(entry.programName, "sudo");
  EXPECT_EQ(access.occupiedCount, 1U);
  EXPECT_EQ(access.connections.size(), 1U);
  EXPECT_EQ(first->headers.at("X-Extra"), "kept");
  EXPECT_EQ(first->headers.at("X-TZOFF"), "-330");
  EXPECT_THAT(first->recordedOptions(), Contains(int{CURLOPT_CAINFO})) << "trust stays";
  EXPECT_THAT(records(), ElementsAre("DEBUG Getting CURL connection for cloud auth.",
                                     "DEBUG Getting CURL connection with timezone offset: '0' ",
                                     "DEBUG Allocated new CURL connection:(0) for cloud auth.",
                                     "DEBUG Set CURL web proxy to: '' with auth: ''.",
                                     "DEBUG Release CURL connection:(0) after cloud auth using.",
                                     "DEBUG Set cloud web proxy to: 'next.example.test:3128' with auth: ''.",
                                     "DEBUG Getting CURL connection for cloud auth.",
                                     "DEBUG Getting CURL connection with timezone offset: '-330' ",
                                     "DEBUG Got CURL connection:(0) for cloud auth.",
                                     "DEBUG Set CURL web proxy to: 'next.example.test:3128' with auth: ''."));
}

TEST_F(CurlPoolTest, FirstIdleConnectionInOrderOfAddressIsTaken) {
  limit(5);
  const std::vector<CurlObject*> out = take(4);
  auto second = std::next(access.connections.begin());
  auto third = std::next(second);
  access.pool.releaseCurl(third->first);
  access.pool.releaseCurl(second->first);
  EXPECT_THAT(records(), Contains("DEBUG Release CURL connection:(2) after cloud auth using."));
  EXPECT_THAT(records(), Contains("DEBUG Release CURL connection:(1) after cloud auth using."));
  EXPECT_EQ(access.pool.getCurl("eve", "x"), second->first);
  EXPECT_THAT(records(), Contains("DEBUG Got CURL connection:(1) for cloud auth."));
  EXPECT_EQ(access.pool.getCurl("eve", "x"), third->first);
  access.pool.getCurl("eve", "x");
  EXPECT_THAT(records(), Contains("DEBUG Allocated new CURL connection:(4) for cloud auth."));
}

TEST_F(CurlPoolTest, TimeZoneIsInMinutesWestOfGreenwich) {
  struct Row {
    const char* zone;
    time_t at;
    const char* offset;
  };
  constexpr time_t JANUARY = 1768478400;  // 2026-01-15 12:00 UTC
  constexpr time_t JULY = 1784116800;     // 2026-07-15 12:00 UTC
  const Row rows[] = {{"UTC0", JANUARY, "0"},
                      {"EST5EDT,M3.2.0,M11.1.0", JANUARY, "300"},
                      {"EST5EDT,M3.2.0,M11.1.0", JULY, "240"},
                      {"CET-1CEST,M3.5.0,M10.5.0/3", JULY, "-120"},
                      {"XST-5:30:40", JANUARY, "-330"},
                      {"XST5:30:40", JANUARY, "330"},
                      {"XST0:00:59", JANUARY, "0"},
                      {"XST-1", JANUARY, "-60"},
                      {"", JANUARY, "0"}};
  limit(1);
  for (const Row& row : rows) {
    setenv("TZ", row.zone, 1);
    clock.set(std::chrono::system_clock::from_time_t(row.at));
    CurlObject* curl = access.pool.getCurl("alice", "login");
    EXPECT_EQ(curl->headers.at("X-TZOFF"), row.offset) << row.zone;
    EXPECT_THAT(records(),
                Contains("DEBUG Getting CURL connection with timezone offset: '" + std::string(row.offset) + "' "));
    access.pool.releaseCurl(curl);
  }
}

TEST_F(CurlPoolTest, TimeZoneOfTheMachineIsFollowedWithinTheSecond) {
  limit(1);
  unsetenv("TZ");
  CurlObject* curl = access.pool.getCurl("alice", "login");
  const std::string machine = curl->headers.at("X-TZOFF");
  for (const char* zone : {"XST-11:37", "XST+11:37"}) {
    access.pool.releaseCurl(curl);
    setenv("TZ", zone, 1);
    curl = access.pool.getCurl("alice", "login");
    EXPECT_EQ(curl->headers.at("X-TZOFF"), zone[3] == '-' ? "-697" : "697");
  }
  access.pool.releaseCurl(curl);
  unsetenv("TZ");
  EXPECT_EQ(access.pool.getCurl("alice", "login")->headers.at("X-TZOFF"), machine);
}

TEST_F(CurlPoolTest, ReturnOfNothingOrOfAStrangerChangesNothing) {
  limit(2);
  access.pool.getCurl("alice", "login");
  const std::size_t before = records().size();
  access.pool.releaseCurl(nullptr);
  alignas(16) char noObject[16] = {};
  access.pool.releaseCurl(reinterpret_cast<CurlObject*>(noObject));
  EXPECT_EQ(access.occupiedCount, 1U);
  EXPECT_EQ(records().size(), before);
}

TEST_F(CurlPoolTest, ReturnStripsTheConnectionOfItsUser) {
  limit(1);
  access.pool.setProxy(proxyInfo("proxy.example.test:8080", "negotiate", "alice@EXAMPLE.TEST", "secret"));
  CurlObject* const curl = access.pool.getCurl("alice", "login");
  const std::set<int> withProxy = defaultsAnd({CURLOPT_PROXY, CURLOPT_PROXYAUTH, CURLOPT_PROXYUSERPWD,
                                               CURLOPT_HTTPPROXYTUNNEL, CURLOPT_PROXY_GSS_SPN, CURLOPT_PROXY_GSS_CRED,
                                               CURLOPT_PROXY_GSS_SETUP_FUNCTION, CURLOPT_PROXY_GSS_SETUP_DATA});
  EXPECT_EQ(curl->recordedOptions(), withProxy);
  const std::string clear = "DEBUG Clear Krb5CCache 'MEMORY:";
  EXPECT_THAT(recordsOf(log.texts(), "cloud.proxy.gss"), Not(Contains(HasSubstr(clear))));
  access.pool.releaseCurl(curl);
  EXPECT_EQ(curl->recordedOptions(), defaultsAnd({CURLOPT_HTTPPROXYTUNNEL}));
  EXPECT_THAT(recordsOf(log.texts(), "cloud.proxy.gss"), Contains("DEBUG Release GSS credential handler."));
  EXPECT_THAT(recordsOf(log.texts(), "cloud.proxy.gss"), Contains(HasSubstr(clear)));
  access.pool.getCurl("alice", "login");
  EXPECT_EQ(curl->recordedOptions(), withProxy);
  EXPECT_EQ(source.requests.size(), 2U) << "a ticket for each hand-out";
  EXPECT_THAT(log.text(), Not(HasSubstr("secret")));
}

TEST_F(CurlPoolTest, ProxyGoesToLaterHandOutsOnly) {
  limit(3);
  CurlObject* const direct = access.pool.getCurl("alice", "login");
  CloudProxyInfo proxy = proxyInfo("proxy.example.test:8080", "basic", "bob", "pw");
  proxy.proxyUsable = false;
  access.pool.setProxy(proxy);
  EXPECT_EQ(access.proxyServer, "proxy.example.test:8080");
  EXPECT_EQ(access.proxyAuth, "basic");
  EXPECT_EQ(access.proxyUser, "bob");
  EXPECT_EQ(access.proxyPassword, lumo::Shredder2("pw"));
  EXPECT_FALSE(access.proxyUsable) << "noted, not judged";
  EXPECT_EQ(direct->recordedOptions().count(CURLOPT_PROXY), 0U);
  CurlObject* const through = access.pool.getCurl("alice", "login");
  EXPECT_EQ(through->recordedOptions(), defaultsAnd({CURLOPT_PROXY, CURLOPT_PROXYAUTH, CURLOPT_PROXYUSERPWD,
                                                     CURLOPT_HTTPPROXYTUNNEL, CURLOPT_PROXY_GSS_SPN}));
  EXPECT_THAT(records(), Contains("DEBUG Set cloud web proxy to: 'proxy.example.test:8080' with auth: 'basic'."));
  EXPECT_THAT(records(), Contains("DEBUG Set CURL web proxy to: 'proxy.example.test:8080' with auth: 'basic'."));
  EXPECT_THAT(log.text(), Not(HasSubstr("bob")));
}

TEST_F(CurlPoolTest, EntryWithoutAConnectionIsToldOf) {
  limit(2);
  access.connections[nullptr];
  EXPECT_EQ(failureOf([&] { access.pool.getCurl("alice", "login"); }),
            "CloudConnException -1 Failed to get CURL handle for connection: data corrupted.");
  EXPECT_FALSE(access.connections.at(nullptr).occupied);
  EXPECT_EQ(access.occupiedCount, 0U);
}

TEST_F(CurlPoolTest, ConnectionThatCannotBeSetUpIsDestroyed) {
  limit(2);
  access.pool.setProxy(proxyInfo(tooLong()));
  EXPECT_EQ(failureOf([&] { access.pool.getCurl("alice", "login"); }), REFUSED);
  EXPECT_THAT(access.connections, IsEmpty());
  EXPECT_EQ(access.occupiedCount, 0U);

  access.pool.setProxy(proxyInfo(""));
  access.pool.releaseCurl(access.pool.getCurl("alice", "login"));
  access.pool.setProxy(proxyInfo(tooLong()));
  EXPECT_EQ(failureOf([&] { access.pool.getCurl("alice", "login"); }), REFUSED);
  EXPECT_THAT(access.connections, IsEmpty()) << "an idle one neither";
  EXPECT_EQ(access.occupiedCount, 0U);
  access.pool.setProxy(proxyInfo(""));
  EXPECT_NE(access.pool.getCurl("alice", "login"), nullptr);
}

TEST_F(CurlPoolTest, FailureOfTheServiceNameLeavesNothingOccupied) {
  limit(1);
  source.machineCacheName.clear();
  access.pool.setProxy(proxyInfo("proxy.example.test:8080", "basic", "alice", "secret"));
  EXPECT_THAT(failureOf([&] { access.pool.getCurl("alice", "login"); }), HasSubstr("KerberosException"));
  EXPECT_EQ(access.occupiedCount, 0U);
  source.machineCacheName = "MEMORY:machine";
  EXPECT_NE(access.pool.getCurl("alice", "login"), nullptr);
}

TEST_F(CurlPoolTest, NoMemoryForAHandleIsToldAndNothingIsOccupied) {
  limit(1);
  const auto lack = [this] {
    const CurlMemory memory;
    CurlMemory::isGone = true;
    const std::string said = failureOf([this] { access.pool.getCurl("alice", "login"); });
    CurlMemory::isGone = false;
    const bool goesOn = access.connections.empty() && access.pool.getCurl("alice", "login") != nullptr;
    std::fprintf(stderr, "[%s] %s\n", said.c_str(), goesOn ? "goes on" : "is stuck");
    std::_Exit(7);
  };
  EXPECT_EXIT(lack(), testing::ExitedWithCode(7), "\\[CurlException -1 Failed to create curl context\\] goes on");
}
