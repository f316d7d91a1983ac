#include "basalt/directory/directory_srv.h"

#include <gmock/gmock.h>

#include "base/include/exceptions.h"
#include "testsupport/dns_bytes.h"

namespace {

using lumo::orderSrvRecords;
using lumo::parseSrvAnswer;
using lumo::SrvRecord;
using testing::ElementsAre;

std::vector<SrvRecord> parse(const std::string& bytes) {
  return parseSrvAnswer(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

std::vector<std::string> targets(const std::vector<SrvRecord>& records) {
  std::vector<std::string> result;
  for (const auto& record : records) result.push_back(record.target);
  return result;
}

TEST(SrvAnswer, GivesTheRecordsInTheOrderOfTheAnswer) {
  const auto records = parse(dnsAnswer({srvData(10, 60, 389, "dc1.corp.test"), srvData(0, 5, 3268, "DC2.corp.test")}));
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].priority, 10);
  EXPECT_EQ(records[0].weight, 60);
  EXPECT_EQ(records[0].port, 389);
  EXPECT_EQ(records[0].target, "dc1.corp.test");
  EXPECT_EQ(records[1].priority, 0);
  EXPECT_EQ(records[1].port, 3268);
  EXPECT_EQ(records[1].target, "DC2.corp.test");
}

TEST(SrvAnswer, WithoutRecordsIsEmpty) { EXPECT_TRUE(parse(dnsAnswer({})).empty()); }

TEST(SrvAnswer, LeavesOutRecordsOfOtherTypes) {
  EXPECT_THAT(targets(parse(dnsAnswer({srvData(0, 0, 389, "dc1.corp.test")}, 1))), ElementsAre());
}

TEST(SrvAnswer, LeavesOutTheRootAndWhatIsNoHostName) {
  EXPECT_THAT(targets(parse(
                  dnsAnswer({srvData(0, 0, 389, ""), srvData(0, 0, 389, "dc1/x.test"), srvData(0, 0, 389, "dc 1.test"),
                             srvData(0, 0, 389, "dc@1.test"), srvData(0, 0, 389, "dc-1_a.test")}))),
              ElementsAre("dc-1_a.test"));
}

TEST(SrvAnswer, RefusesDamagedBytes) {
  const std::string whole = dnsAnswer({srvData(10, 60, 389, "dc1.corp.test")});
  EXPECT_NO_THROW(parse(whole));
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_THROW(parse(whole.substr(0, size)), lumo::BadDataException) << size;
  }
  EXPECT_THROW(parse(dnsAnswer({std::string("\0\0\0\0\0\0", 6)})), lumo::BadDataException);
  EXPECT_THROW(parse(dnsAnswer({std::string("\0\0\0\0\0\0\xc0\xff", 8)})), lumo::BadDataException);
}

std::vector<std::string> order(std::vector<SrvRecord> records, std::vector<std::uint32_t> lots) {
  std::size_t at = 0;
  return targets(orderSrvRecords(std::move(records), [&](std::uint32_t limit) {
    const std::uint32_t lot = at < lots.size() ? lots[at++] : 0;
    EXPECT_LE(lot, limit);
    return lot;
  }));
}

TEST(SrvOrder, GoesByPriority) {
  EXPECT_THAT(order({{20, 0, 1, "c"}, {0, 0, 1, "a"}, {10, 0, 1, "b"}}, {}), ElementsAre("a", "b", "c"));
}

TEST(SrvOrder, DrawsLotsByWeightWithinAPriority) {
  const std::vector<SrvRecord> records{{0, 10, 1, "a"}, {0, 60, 1, "b"}, {0, 30, 1, "c"}, {5, 1, 1, "last"}};
  // A lot falls on the first record up to which the weights sum up to it: a to 10, b to 70, c to 100.
  EXPECT_THAT(order(records, {100, 0, 0, 0}), ElementsAre("c", "a", "b", "last"));
  EXPECT_THAT(order(records, {11, 11, 0, 0}), ElementsAre("b", "c", "a", "last"));
  EXPECT_THAT(order(records, {70, 10, 30, 1}), ElementsAre("b", "a", "c", "last"));
}

TEST(SrvOrder, GivesRecordsWithoutWeightASmallChance) {
  const std::vector<SrvRecord> records{{0, 10, 1, "a"}, {0, 0, 1, "none"}};
  EXPECT_THAT(order(records, {0, 0}), ElementsAre("none", "a"));
  EXPECT_THAT(order(records, {1, 0}), ElementsAre("a", "none"));
}

TEST(SrvOrder, OffersTheSumAsLimitOfTheLot) {
  std::vector<std::uint32_t> limits;
  orderSrvRecords({{0, 10, 1, "a"}, {0, 65535, 1, "b"}}, [&](std::uint32_t limit) {
    limits.push_back(limit);
    return std::uint32_t{0};
  });
  EXPECT_THAT(limits, ElementsAre(65545, 65535));
}

}  // namespace
