// The report, and the end of the process.
#include "cloud/http/tests/cloud_object_pool_fixture.h"

namespace {

using std::chrono::seconds;

}  // namespace

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

TEST_F(CurlPoolTest, ReportHasNoLinesOfAUsersMaking) {
  limit(20);
  take(1);
  access.connections.begin()->second = {true, 0, "eve\n       Occupied: No\x1b[2J", "login\xff\r"};
  const std::string report = access.pool.dump();
  EXPECT_NE(report.find("       User name: eve\\n       Occupied: No\\x1b[2J\n"
                        "       Program name: login\\xff\\r\n"),
            std::string::npos)
      << report;
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
