#include <gmock/gmock.h>

#include <cstdlib>
#include <ctime>
#include <optional>

#include "base/include/parameter_names.h"
#include "cloud/tests/cloud_object_pool_access.h"
#include "cloud/tests/curl_object_fixture.h"
#include "testsupport/log_capture.h"
#include "testsupport/manual_clock.h"

namespace {

using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::UnorderedElementsAre;

constexpr char EXCEEDED[] = "CloudConnException -1 Failed to get CURL handle for connection: connections exceeded.";
// More than libcurl takes for one text.
std::string tooLong() { return std::string(8000001, 'x'); }
constexpr char REFUSED[] =
    "CurlException -1 curl error occurred in curl_easy_setopt: A libcurl function was given a bad argument (43)";

class CurlPoolTest : public CurlObjectTest {
 protected:
  CurlPoolTest() {
    setenv("TZ", "UTC0", 1);
    tzset();
  }
  ~CurlPoolTest() override {
    unsetenv("TZ");
    tzset();
  }

  // A pool whose limits are set already, so that they leave no records.
  void limit(std::uint64_t connections, std::int32_t time = 900) {
    access.maxConnections = connections;
    access.occupiedTimeout = time;
  }
  std::vector<std::string> records() const { return recordsOf(log.texts(), "cloud.object"); }
  // Several that are out at the same time.
  std::vector<CurlObject*> take(int count) {
    std::vector<CurlObject*> all;
    for (int i = 0; i < count; ++i) all.push_back(access.pool.getCurl("user" + std::to_string(i), "program"));
    return all;
  }
  time_t now() { return std::chrono::system_clock::to_time_t(clock.now()); }

  testsupport::ManualClock clock;
  CloudCurlPoolAccess access;
  testsupport::LogCapture log;
};

struct Limit {
  const char* name;
  std::vector<SettingsScope::Setting> settings;
  std::uint64_t maximum;
  std::vector<std::string> warnings;
};

std::string illegal(const std::string& value) {
  return "ERROR Illegal value for ferrod.cloud.auth.conn.max: " + value + ". Using 10.";
}

}  // namespace

TEST_F(CurlPoolTest, LimitOfConnectionsComesFromTheSettings) {
  const std::string conn = lumo::PN::FERROD_CLOUD_AUTH_CONN_MAX;
  const std::string token = lumo::PN::FERROD_CLOUD_AUTH_TOKEN_MAX;
  const std::string threads = lumo::PN::LUMOD_MAX_CLIENT_THREADS;
  const std::vector<Limit> limits = {
      {"nothing set", {}, 10, {}},
      {"the second parameter alone", {{token, "7"}}, 7, {}},
      {"the first one wins", {{conn, "12"}, {token, "7"}}, 12, {}},
      {"below 0", {{conn, "-1"}}, 10, {illegal("-1")}},
      {"the bound", {{conn, "20"}}, 20, {}},
      {"above the bound", {{conn, "21"}}, 10, {illegal("21")}},
      {"the second parameter above the bound", {{token, "21"}}, 10, {illegal("21")}},
      {"a bound of its own", {{conn, "50"}, {threads, "50"}}, 50, {}},
      {"above a bound of its own", {{conn, "6"}, {threads, "5"}}, 10, {illegal("6")}},
      {"the default above the bound", {{threads, "5"}}, 10, {illegal("10")}},
      {"a bound that is no number", {{conn, "1"}, {threads, "many"}}, 10, {illegal("1")}},
      {"a bound below 0", {{conn, "0"}, {threads, "-1"}}, 10, {illegal("0")}},
      {"a number with something behind it", {{conn, " 9 at most"}}, 9, {}},
      {"cut to 32 bits", {{conn, "4294967301"}}, 5, {}},
      {"more than fits", {{conn, "99999999999999999999"}}, 10, {illegal("-1")}},
      {"0", {{conn, "0"}}, 0, {}},
      {"no number", {{conn, "some"}}, 0, {}},
  };
  access.occupiedTimeout = 1;
  for (const Limit& one : limits) {
    const SettingsScope settings(one.settings);
    access.maxConnections = 0;
    const std::size_t before = records().size();
    access.pool.setConnProps();
    EXPECT_EQ(access.maxConnections, one.maximum) << one.name;
    std::vector<std::string> wanted = one.warnings;
    wanted.push_back("DEBUG Set max CURL connections number to: " + std::to_string(one.maximum) + ".");
    const std::vector<std::string> all = records();
    EXPECT_EQ(std::vector<std::string>(all.begin() + static_cast<std::ptrdiff_t>(before), all.end()), wanted)
        << one.name;
  }
}

TEST_F(CurlPoolTest, LimitOfTimeComesFromTheSettings) {
  struct Row {
    const char* value;
    std::int32_t limit;
    const char* cut;  // what the value is in 32 bits, where that is illegal
  };
  const Row rows[] = {{nullptr, 900, nullptr},
                      {"60", 60, nullptr},
                      {"2m", 120, nullptr},
                      {"0", 0, nullptr},
                      {"soon", 900, nullptr},
                      {"4294967295", 900, "-1"},
                      {"2147483648", 900, "-2147483648"}};
  access.maxConnections = 1;
  for (const Row& row : rows) {
    std::vector<SettingsScope::Setting> setting;
    if (row.value != nullptr) setting.push_back({lumo::PN::LUMOD_CLIENT_IDLE_TIMEOUT, row.value});
    const SettingsScope settings(setting);
    access.occupiedTimeout = 0;
    const std::size_t before = records().size();
    access.pool.setConnProps();
    EXPECT_EQ(access.occupiedTimeout, row.limit);
    std::vector<std::string> wanted;
    if (row.cut != nullptr) {
      wanted.push_back("ERROR Illegal value for lumod.client.idle.timeout: " + std::string(row.cut) + ". Using 900");
    }
    wanted.push_back("DEBUG Set max CURL connection occupied timeout to : " + std::to_string(row.limit) + "(s).");
    const std::vector<std::string> all = records();
    EXPECT_EQ(std::vector<std::string>(all.begin() + static_cast<std::ptrdiff_t>(before), all.end()), wanted);
  }
}

TEST_F(CurlPoolTest, LimitsStayOnceTheyAreSet) {
  const SettingsScope settings{{lumo::PN::FERROD_CLOUD_AUTH_CONN_MAX, "3"},
                               {lumo::PN::LUMOD_CLIENT_IDLE_TIMEOUT, "30"}};
  access.pool.setConnProps();
  const SettingsScope later{{lumo::PN::FERROD_CLOUD_AUTH_CONN_MAX, "4"}, {lumo::PN::LUMOD_CLIENT_IDLE_TIMEOUT, "40"}};
  access.pool.setConnProps();
  EXPECT_EQ(access.maxConnections, 3U);
  EXPECT_EQ(access.occupiedTimeout, 30);
  EXPECT_EQ(records().size(), 2U);
}

TEST_F(CurlPoolTest, LimitsOfZeroAreReadAtEachHandOut) {
  std::optional<SettingsScope> settings;
  settings.emplace(std::vector<SettingsScope::Setting>{{lumo::PN::FERROD_CLOUD_AUTH_CONN_MAX, "0"},
                                                       {lumo::PN::LUMOD_CLIENT_IDLE_TIMEOUT, "0"}});
  EXPECT_EQ(failureOf([&] { access.pool.getCurl("alice", "login"); }), EXCEEDED);
  EXPECT_EQ(failureOf([&] { access.pool.getCurl("alice", "login"); }), EXCEEDED);
  const std::vector<std::string> one = {
      "DEBUG Set max CURL connections number to: 0.", "DEBUG Set max CURL connection occupied timeout to : 0(s).",
      "DEBUG Getting CURL connection for cloud auth.", "DEBUG Free CURL connections now."};
  std::vector<std::string> wanted = one;
  wanted.insert(wanted.end(), one.begin(), one.end());
  EXPECT_EQ(records(), wanted);
  settings.reset();
  settings.emplace(std::vector<SettingsScope::Setting>{{lumo::PN::FERROD_CLOUD_AUTH_CONN_MAX, "1"},
                                                       {lumo::PN::LUMOD_CLIENT_IDLE_TIMEOUT, "10"}});
  EXPECT_NE(access.pool.getCurl("alice", "login"), nullptr);
  EXPECT_EQ(access.occupiedTimeout, 10);
}

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
                      {"XST0:00:59", JANUARY, "0"}};
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

TEST_F(CurlPoolTest, NoMoreThanTheLimitAreOut) {
  limit(2);
  const std::vector<CurlObject*> out = take(2);
  EXPECT_EQ(failureOf([&] { access.pool.getCurl("eve", "x"); }), EXCEEDED);
  EXPECT_EQ(access.connections.size(), 2U) << "nothing that is out was freed";
  EXPECT_EQ(access.occupiedCount, 2U);
  EXPECT_THAT(access.taken, IsEmpty());
  EXPECT_EQ(records().back(), "DEBUG Free CURL connections now.");
}

TEST_F(CurlPoolTest, OneThatIsPastItsTimeMakesRoom) {
  limit(2);
  CurlObject* const old = access.pool.getCurl("alice", "login");
  const time_t since = now();
  clock.advance(seconds(900));
  CurlObject* const fresh = access.pool.getCurl("bob", "login");
  EXPECT_EQ(failureOf([&] { access.pool.getCurl("eve", "x"); }), EXCEEDED) << "the limit itself is not past it";
  clock.advance(seconds(1));
  CurlObject* const next = access.pool.getCurl("eve", "x");
  EXPECT_NE(next, old);
  EXPECT_NE(next, fresh);
  EXPECT_EQ(access.occupiedCount, 2U);
  EXPECT_EQ(access.connections.count(old), 0U);
  EXPECT_EQ(access.connections.size(), 2U);
  EXPECT_THAT(records(),
              Contains("DEBUG Freed idle/expired CURL connection with timestamp: (" + std::to_string(since) + ")"));
}

TEST_F(CurlPoolTest, ReapingLeavesWhatIsOutAndFresh) {
  limit(5);
  const std::vector<CurlObject*> out = take(3);
  access.pool.releaseCurl(out[0]);
  access.pool.releaseCurl(out[2]);
  const std::size_t before = records().size();
  access.pool.reapCurls();
  EXPECT_EQ(access.connections.size(), 1U);
  EXPECT_EQ(access.connections.count(out[1]), 1U);
  EXPECT_EQ(access.occupiedCount, 1U);
  EXPECT_THAT(access.taken, IsEmpty()) << "idle ones are gone for good";
  const std::string freed = "DEBUG Freed idle/expired CURL connection with timestamp: (" + std::to_string(now()) + ")";
  const std::vector<std::string> all = records();
  EXPECT_THAT(std::vector<std::string>(all.begin() + static_cast<std::ptrdiff_t>(before), all.end()),
              ElementsAre("DEBUG Free CURL connections now.", freed, freed));
}

TEST_F(CurlPoolTest, ClockThatWasSetBackFreesNothingThatIsOut) {
  limit(2);
  access.pool.getCurl("alice", "login");
  clock.advance(seconds(-100000));
  access.pool.reapCurls();
  EXPECT_EQ(access.occupiedCount, 1U);
}

TEST_F(CurlPoolTest, HolderOfATakenConnectionUsesItToItsReturn) {
  limit(2);
  CurlObject* const old = access.pool.getCurl("alice", "login");
  CurlObject* const other = access.pool.getCurl("bob", "login");
  clock.advance(seconds(901));
  access.pool.reapCurls();
  EXPECT_EQ(access.occupiedCount, 0U);
  EXPECT_THAT(access.connections, IsEmpty());
  EXPECT_EQ(access.taken.size(), 2U);
  old->setOpt(CURLOPT_TIMEOUT, 5);
  old->headers["X-Alive"] = "yes";

  CurlObject* const fresh = access.pool.getCurl("eve", "x");
  EXPECT_NE(fresh, old) << "what is taken is not handed out";
  const std::size_t before = records().size();
  access.pool.releaseCurl(old);
  EXPECT_EQ(access.taken.size(), 1U);
  EXPECT_EQ(access.occupiedCount, 1U);
  EXPECT_EQ(access.connections.size(), 1U);
  access.pool.releaseCurl(old);  // by now an address that nobody knows
  EXPECT_EQ(access.occupiedCount, 1U);
  EXPECT_EQ(records().size(), before) << "nothing is said about it";
  access.pool.releaseCurl(other);
  EXPECT_THAT(access.taken, IsEmpty());
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

TEST_F(CurlPoolTest, ReportOfAnEmptyPool) {
  clock.set(std::chrono::system_clock::from_time_t(1768478400));
  EXPECT_EQ(access.pool.dump(),
            "==============Morvane MFA Service Connections Info============\n"
            "Morvane MFA Service Connections maximum: 0\n"
            "Current count: 0\n"
            "Current occupied count: 0\n"
            "Current timestamp: 1768478400\n"
            "Connections: \n");
}

TEST_F(CurlPoolTest, ReportOfIdleOccupiedAndExpiredConnections) {
  clock.set(std::chrono::system_clock::from_time_t(4000000000));  // more than 31 bits hold
  limit(20);
  const std::vector<CurlObject*> out = take(4);
  auto entry = access.connections.begin();
  entry++->second = {false, 4000000000 - 900, "alice", "login"};
  entry++->second = {true, 4000000000 - 901, "bob", "sudo"};
  entry++->second = {false, 4000000000 - 901, "", ""};
  entry++->second = {true, 4000000000, "eve\xc3\xa4", "x y"};
  access.occupiedCount = 2;
  EXPECT_EQ(access.pool.dump(),
            "==============Morvane MFA Service Connections Info============\n"
            "Morvane MFA Service Connections maximum: 20\n"
            "Current count: 4\n"
            "Current occupied count: 2\n"
            "Current timestamp: 4000000000\n"
            "Connections: \n"
            "   Connection: 0\n"
            "       User name: alice\n"
            "       Program name: login\n"
            "       Occupied: No\n"
            "       Expired: No\n"
            "   Connection: 1\n"
            "       User name: bob\n"
            "       Program name: sudo\n"
            "       Occupied: Yes\n"
            "       Expired: Yes\n"
            "   Connection: 2\n"
            "       User name: \n"
            "       Program name: \n"
            "       Occupied: No\n"
            "       Expired: Yes\n"
            "   Connection: 3\n"
            "       User name: eve\xc3\xa4\n"
            "       Program name: x y\n"
            "       Occupied: Yes\n"
            "       Expired: No\n");
}

// Under a leak checker: what the pool does not destroy is not taken for lost.
TEST_F(CurlPoolTest, ConnectionsMayBeLeftAtTheEndOfTheProcess) {
  EXPECT_EXIT(
      {
        limit(3);
        access.pool.releaseCurl(take(2).front());
        clock.advance(seconds(901));
        access.pool.reapCurls();
        take(2);
        DirectoryConnector::setInstance(nullptr);
        std::exit(0);
      },
      testing::ExitedWithCode(0), "");
}
