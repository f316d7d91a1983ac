#include "basalt/directory/directory_ping.h"

#include <gtest/gtest.h>

#include "basalt/directory/tests/netlogon_bytes.h"
#include "base/include/exceptions.h"
#include "testsupport/manual_clock.h"

namespace {

using lumo::parseNetlogonMessage;
using lumo::parseNetlogonReply;

std::string bytesOf(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

TEST(NetlogonRequest, IsASearchOfTheRootForTheAttribute) {
  const std::string wanted = berItem(0xa3, berItem(0x04, "DnsDomain") + berItem(0x04, "corp.test")) +
                             berItem(0xa3, berItem(0x04, "NtVer") + berItem(0x04, std::string("\x06\0\0\0", 4)));
  const std::string search = berItem(0x04, "") + bytesOf("0a01000a0100020100020100010100") + berItem(0xa0, wanted) +
                             berItem(0x30, berItem(0x04, "netlogon"));
  EXPECT_EQ(lumo::netlogonRequest("corp.test", 7), ldapMessage(7, berItem(0x63, search)));
}

TEST(NetlogonReply, TellsNamesAndSites) {
  const auto reply = parseNetlogonReply(netlogonValue("Berlin"));
  EXPECT_EQ(reply.flags, 0x0003f3fdU);
  EXPECT_EQ(reply.forest, "corp.test");
  EXPECT_EQ(reply.domain, "corp.test");
  EXPECT_EQ(reply.host, "dc1.corp.test");
  EXPECT_EQ(reply.serverSite, "Server-Site");
  EXPECT_EQ(reply.clientSite, "Berlin");
}

TEST(NetlogonReply, MayKnowNoSite) { EXPECT_EQ(parseNetlogonReply(netlogonValue("")).clientSite, ""); }

TEST(NetlogonReply, ComesAlsoFromAPausedControllerAndForAnUnknownUser) {
  EXPECT_EQ(parseNetlogonReply(netlogonValue("Berlin", 24)).clientSite, "Berlin");
  EXPECT_EQ(parseNetlogonReply(netlogonValue("Berlin", 25)).clientSite, "Berlin");
}

TEST(NetlogonReply, OfAnotherKindIsRefused) {
  for (const char opcode : {'\x00', '\x13', '\x15', '\x16', '\x1a'}) {
    EXPECT_THROW(parseNetlogonReply(netlogonValue("Berlin", opcode)), lumo::BadDataException) << int{opcode};
  }
}

TEST(NetlogonReply, CutAnywhereIsRefused) {
  const std::string whole = netlogonValue("Berlin");
  const std::size_t behindNames = whole.size() - 8;
  for (std::size_t size = 0; size < behindNames; ++size) {
    EXPECT_THROW(parseNetlogonReply(whole.substr(0, size)), lumo::BadDataException) << size;
  }
  EXPECT_NO_THROW(parseNetlogonReply(whole.substr(0, behindNames)));
}

std::string withName(const std::string& name) {
  return netlogonValue("x").substr(0, 24) + name + std::string(16, '\0');
}

TEST(NetlogonReply, ReferencesGoBackOnly) {
  EXPECT_THROW(parseNetlogonReply(withName(std::string("\xc0\x18", 2))), lumo::BadDataException);
  EXPECT_THROW(parseNetlogonReply(withName(std::string("\xc0\x1a\x01"
                                                       "a",
                                                       4))),
               lumo::BadDataException);
  EXPECT_THROW(parseNetlogonReply(withName(std::string("\x01"
                                                       "a\xc0\x18",
                                                       4))),
               lumo::BadDataException);
}

TEST(NetlogonReply, NamesAreBoundedAndHoldNoZero) {
  std::string longName;
  for (int i = 0; i < 5; ++i) longName += '\x3f' + std::string(63, 'a');
  EXPECT_THROW(parseNetlogonReply(withName(longName + '\0')), lumo::BadDataException);
  EXPECT_THROW(parseNetlogonReply(withName(std::string("\x03"
                                                       "a\0b\0",
                                                       5))),
               lumo::BadDataException);
  EXPECT_THROW(parseNetlogonReply(withName(std::string("\x81"
                                                       "a\0",
                                                       3))),
               lumo::BadDataException);
}

TEST(NetlogonMessage, CarriesTheReply) {
  const auto reply = parseNetlogonMessage(ldapMessage(3, ldapEntry("", "NetLogon", netlogonValue("Berlin"))), 3);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->clientSite, "Berlin");
}

TEST(NetlogonMessage, OfAnotherNumberOrKindIsNone) {
  EXPECT_FALSE(parseNetlogonMessage(ldapMessage(4, ldapEntry("", "netlogon", netlogonValue("Berlin"))), 3));
  EXPECT_FALSE(parseNetlogonMessage(ldapMessage(3, ldapEntry("", "other", netlogonValue("Berlin"))), 3));
  EXPECT_FALSE(parseNetlogonMessage(ldapMessage(3, ldapDone(0)), 3));
  EXPECT_FALSE(parseNetlogonMessage("", 3));
  EXPECT_FALSE(parseNetlogonMessage("GET / HTTP/1.1", 3));
}

TEST(NetlogonMessage, CutAnywhereGivesNothing) {
  const std::string whole = ldapMessage(3, ldapEntry("", "netlogon", netlogonValue("Berlin")));
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(parseNetlogonMessage(whole.substr(0, size), 3)) << size;
  }
}

TEST(NetlogonMessage, WithADamagedReplyIsRefused) {
  EXPECT_THROW(parseNetlogonMessage(ldapMessage(3, ldapEntry("", "netlogon", "x")), 3), lumo::BadDataException);
}

TEST(PingMemory, AsksOnceInTenMinutesForADomain) {
  testsupport::ManualClock clock;
  int pings = 0;
  lumo::PingMemory memory([&](const std::vector<lumo::DirectoryServer>&, const std::string&) {
    lumo::NetlogonReply reply;
    reply.clientSite = "Site" + std::to_string(++pings);
    return std::optional<lumo::NetlogonReply>(reply);
  });
  EXPECT_EQ(memory({}, "corp.test")->clientSite, "Site1");
  EXPECT_EQ(memory({}, "CORP.test")->clientSite, "Site1");
  EXPECT_EQ(memory({}, "sub.corp.test")->clientSite, "Site2");
  clock.advance(std::chrono::minutes(10) - std::chrono::milliseconds(1));
  EXPECT_EQ(memory({}, "corp.test")->clientSite, "Site1");
  clock.advance(std::chrono::milliseconds(1));
  EXPECT_EQ(memory({}, "corp.test")->clientSite, "Site3");
}

TEST(PingMemory, DoesNotRememberSilence) {
  testsupport::ManualClock clock;
  int pings = 0;
  lumo::PingMemory memory([&](const std::vector<lumo::DirectoryServer>&, const std::string&) {
    return ++pings == 1 ? std::nullopt : std::optional<lumo::NetlogonReply>(lumo::NetlogonReply{});
  });
  EXPECT_FALSE(memory({}, "corp.test"));
  EXPECT_TRUE(memory({}, "corp.test"));
  EXPECT_TRUE(memory({}, "corp.test"));
  EXPECT_EQ(pings, 2);
}

TEST(PingMemory, AsksAnewWhereThatIsWanted) {
  testsupport::ManualClock clock;
  int pings = 0;
  lumo::PingMemory memory([&](const std::vector<lumo::DirectoryServer>&, const std::string&) {
    lumo::NetlogonReply reply;
    reply.clientSite = "Site" + std::to_string(++pings);
    return pings == 3 ? std::nullopt : std::optional<lumo::NetlogonReply>(reply);
  });
  EXPECT_EQ(memory({}, "corp.test")->clientSite, "Site1");
  EXPECT_EQ(memory.renew({}, "corp.test")->clientSite, "Site2");
  EXPECT_EQ(memory({}, "corp.test")->clientSite, "Site2");
  // Silence leaves what was known.
  EXPECT_FALSE(memory.renew({}, "corp.test"));
  EXPECT_EQ(memory({}, "corp.test")->clientSite, "Site2");
  clock.advance(lumo::PingMemory::LIFE);
  EXPECT_EQ(memory({}, "corp.test")->clientSite, "Site4");
}

}  // namespace
