#include "quill/rpc_places.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// "ALL OTHERS PER-USER".
std::string places(int maxClients, bool rootOnly = false) {
  const lumo::RpcPlaces places = lumo::rpcPlaces(maxClients, rootOnly);
  return std::to_string(places.all) + " " + std::to_string(places.others) + " " + std::to_string(places.perUser);
}

TEST(RpcPlaces, AQuarterIsRootsAloneAndAsManyAreOneUsers) {
  EXPECT_EQ(places(20), "20 15 5");
  EXPECT_EQ(places(256), "256 192 64");
  EXPECT_EQ(places(23), "23 18 5");
}

TEST(RpcPlaces, FewPlacesStillLeaveOneForRootAndOneForTheOthers) {
  EXPECT_EQ(places(3), "3 2 1");
  EXPECT_EQ(places(2), "2 1 1");
  EXPECT_EQ(places(1), "2 1 1");
  EXPECT_EQ(places(0), "2 1 1");
  EXPECT_EQ(places(-5), "2 1 1");
}

TEST(RpcPlaces, AllAreRootsWhereRootAloneIsServed) {
  EXPECT_EQ(places(20, true), "20 0 0");
  EXPECT_EQ(places(0, true), "1 0 0");
}

}  // namespace
