// How many connections are out, for how long, and what is taken away.
#include <optional>

#include "base/include/parameter_names.h"
#include "cloud/http/tests/cloud_object_pool_fixture.h"

namespace {

using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char EXCEEDED[] = "CloudConnException -1 Failed to get CURL handle for connection: connections exceeded.";

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
                      {"-", 900, nullptr},
                      {"-0", 900, nullptr},
                      {"-5", 900, "-5"},
                      {"-5m", 900, "-5"},
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
