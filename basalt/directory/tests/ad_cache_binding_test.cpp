#include "basalt/directory/ad_cache_binding.h"

#include <gmock/gmock.h>

#include "base/include/exceptions.h"
#include "base/include/kerb_wrap.h"
#include "testsupport/manual_clock.h"
#include "testsupport/memory_directory.h"

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testsupport::MemoryDirectory;
using Kind = MemoryDirectory::Failure::Kind;

constexpr char HOST[] = "CN=h1,DC=corp,DC=test";
constexpr const char* ATTRIBUTES[] = {"cn", "keywords", nullptr};
constexpr int USUAL = CACHE_READ | CACHE_STORE | CACHE_MISSES;

class CacheBinding : public testing::Test {
 protected:
  CacheBinding() { m_directory.add(HOST, {{"cn", {"h1"}}, {"objectGUID", {"0123456789abcdef"}}}); }

  boost::shared_ptr<ADObjectList> ask(int cacheOps, const std::string& filter = "(cn=h1)") {
    return m_binding.search(filter, "", ATTRIBUTES, 2, 0, cacheOps, false, false);
  }
  // What a search that fails says; the code, then the text.
  std::string failure() {
    try {
      ask(0);
    } catch (const LDAPException& failed) {
      EXPECT_EQ(isServerUnavailable(failed), true) << failed.rc();
      return std::to_string(failed.rc()) + " " + failed.what();
    }
    return "none";
  }

  testsupport::ManualClock m_clock;
  MemoryDirectory m_directory{"corp.test"};
  testsupport::DirectoryInForce m_inForce{m_directory};
  std::string m_ccache = "FILE:/agent";
  ADCacheBinding m_binding{{"corp.test", true, "", "", ""}, [this] { return m_ccache; }};
};

TEST_F(CacheBinding, ConnectsOnlyWhenItIsUsed) {
  EXPECT_THAT(m_directory.opened(), IsEmpty());
  EXPECT_EQ(m_binding.connections(), 0U);
  ASSERT_THAT(*ask(0), SizeIs(1));
  EXPECT_THAT(*ask(0), SizeIs(1));
  ASSERT_THAT(m_directory.opened(), SizeIs(1));
  EXPECT_EQ(m_directory.opened().front().ccacheName, "FILE:/agent");
  EXPECT_TRUE(m_directory.opened().front().globalCatalog);
  EXPECT_EQ(m_binding.connections(), 1U);
}

TEST_F(CacheBinding, AsksForTheIdentifierToo) {
  EXPECT_EQ(ask(0)->front()->guid().toString(), "33323130-3534-3736-3839-616263646566");
  EXPECT_THAT(m_directory.searches().back().what.attributes, ElementsAre("cn", "keywords", "objectGUID"));
  static constexpr const char* WITH[] = {"OBJECTguid", "cn", nullptr};
  m_binding.search("(cn=h1)", "", WITH, 2, 0, 0, false, false);
  EXPECT_THAT(m_directory.searches().back().what.attributes, ElementsAre("OBJECTguid", "cn"));
  m_binding.fetch(HOST, {"cn"});
  EXPECT_THAT(m_directory.searches().back().what.attributes, ElementsAre("cn", "objectGUID"));
}

TEST_F(CacheBinding, AsksForAllAttributesWhereNoneIsNamed) {
  static constexpr const char* NONE[] = {nullptr};
  for (const char* const* attributes : {static_cast<const char* const*>(nullptr), NONE + 0}) {
    EXPECT_TRUE(
        m_binding.search("(cn=h1)", "", attributes, 2, 0, 0, false, false)->front()->attributeExists(AD_DN, true));
    EXPECT_THAT(m_directory.searches().back().what.attributes, IsEmpty());
  }
}

TEST_F(CacheBinding, ScopeIsANumber) {
  m_directory.add("DC=corp,DC=test", {});
  m_directory.add("CN=sub,CN=h1,DC=corp,DC=test", {{"cn", {"sub"}}});
  const auto count = [&](int scope) {
    return m_binding.search("(objectClass=*)", "DC=corp,DC=test", ATTRIBUTES, scope, 0, 0, false, false)->size();
  };
  EXPECT_EQ(count(0), 1U);
  EXPECT_EQ(count(1), 1U);
  EXPECT_EQ(count(2), 3U);
}

TEST_F(CacheBinding, GivesNoMoreThanTheLimit) {
  m_directory.add("CN=h2,DC=corp,DC=test", {{"cn", {"h2"}}});
  const auto count = [&](int limit) {
    return m_binding.search("(cn=h*)", "", ATTRIBUTES, 2, limit, USUAL, false, false)->size();
  };
  EXPECT_EQ(count(1), 1U);
  EXPECT_EQ(count(0), 2U);
  EXPECT_EQ(count(2), 2U);
}

TEST_F(CacheBinding, AnswersFromMemoryWhatItStored) {
  ask(CACHE_STORE);
  EXPECT_THAT(*ask(CACHE_READ), SizeIs(1));
  EXPECT_THAT(m_directory.searches(), SizeIs(1));
  ask(0);
  EXPECT_THAT(m_directory.searches(), SizeIs(2));
}

TEST_F(CacheBinding, DoesNotRememberUnasked) {
  ask(CACHE_READ);
  ask(CACHE_READ);
  EXPECT_THAT(m_directory.searches(), SizeIs(2));
}

TEST_F(CacheBinding, RemembersThatThereIsNothingOnlyWhenAsked) {
  ask(CACHE_READ | CACHE_STORE, "(cn=none)");
  EXPECT_THAT(*ask(USUAL, "(cn=none)"), IsEmpty());
  EXPECT_THAT(m_directory.searches(), SizeIs(2));
  EXPECT_THAT(*ask(CACHE_READ, "(cn=none)"), IsEmpty());
  EXPECT_THAT(m_directory.searches(), SizeIs(2));
}

TEST_F(CacheBinding, RenewsWhatItRemembersWhereAsked) {
  ask(USUAL);
  m_directory.add(HOST, {{"cn", {"h1"}}, {"keywords", {"new"}}});
  EXPECT_FALSE(ask(USUAL)->front()->attributeExists("keywords", true));
  EXPECT_TRUE(ask(USUAL | CACHE_RENEW)->front()->attributeExists("keywords", true));
  EXPECT_TRUE(ask(USUAL)->front()->attributeExists("keywords", true));
  EXPECT_THAT(m_directory.searches(), SizeIs(2));
}

TEST_F(CacheBinding, ForgetsWhatIsNoLongerSo) {
  ask(USUAL);
  m_directory.remove(HOST);
  EXPECT_THAT(*ask(CACHE_STORE), IsEmpty());
  EXPECT_FALSE(m_binding.recall("(cn=h1)", "", ATTRIBUTES, 2, 0));
}

TEST_F(CacheBinding, AsksAnewWhenTheAnswerIsOld) {
  ask(USUAL);
  m_clock.advance(ADCacheBinding::CACHE_LIFE);
  ask(USUAL);
  EXPECT_THAT(m_directory.searches(), SizeIs(2));
}

TEST_F(CacheBinding, NeverGivesTheSameObjectTwice) {
  ask(USUAL)->front()->set("written", {"by the caller"});
  const auto second = ask(USUAL);
  EXPECT_FALSE(second->front()->attributeExists("written", false));
  second->front()->set("cn", {"written"});
  EXPECT_EQ(ask(USUAL)->front()->getString("cn", ""), "h1");
}

TEST_F(CacheBinding, AnswersFromMemoryWhileTheDirectoryIsAway) {
  ask(USUAL);
  m_directory.failSearch({Kind::Gone, -1, ""});
  m_directory.failOpen({Kind::Unreachable, -1, ""});
  EXPECT_NE(failure(), "none");
  EXPECT_THAT(*ask(USUAL), SizeIs(1));
  EXPECT_THROW(ask(USUAL | CACHE_RENEW), LDAPException);
}

TEST_F(CacheBinding, KeepsAnAttributeThatCannotBeRead) {
  m_directory.makeUnreadable(HOST, "keywords");
  for (int i = 0; i < 2; ++i) {
    const auto found = ask(USUAL);
    EXPECT_TRUE((*found->front())["keywords"].isNull()) << i;
    EXPECT_TRUE(found->front()->attributeExists("keywords", true)) << i;
  }
}

TEST_F(CacheBinding, SaysWithTheSameWordsThatNobodyAnswers) {
  m_directory.failOpen({Kind::Unreachable, -1, ""});
  EXPECT_EQ(failure(), "-11 No directory server of the domain 'corp.test' answers");
  m_clock.advance(ADCacheBinding::RETRY_PAUSE);
  m_directory.failOpen({Kind::NoServers, -1, ""});
  EXPECT_EQ(failure(), "-11 No directory server of the domain 'corp.test' was found");
}

TEST_F(CacheBinding, PassesOnThatItIsNotLetIn) {
  m_directory.failOpen({Kind::Refused, -1, ""});
  try {
    ask(0);
    FAIL();
  } catch (const LDAPException& refusal) {
    EXPECT_STREQ(refusal.what(), "Invalid credentials");
    EXPECT_EQ(refusal.rc(), 49);
    EXPECT_FALSE(isServerUnavailable(refusal));
  }
}

TEST_F(CacheBinding, FailsAtOnceWithinThePauseAndTriesBehindIt) {
  m_directory.failOpen({Kind::Unreachable, -1, ""}, 1);
  const std::string words = failure();
  m_clock.advance(ADCacheBinding::RETRY_PAUSE - milliseconds(1));
  EXPECT_EQ(failure(), words);
  EXPECT_FALSE(m_binding.isHealthy());
  EXPECT_THAT(m_directory.opened(), SizeIs(1));
  m_clock.advance(milliseconds(1));
  EXPECT_TRUE(m_binding.isHealthy());
  EXPECT_EQ(failure(), "none");
  EXPECT_THAT(m_directory.opened(), SizeIs(2));
}

TEST_F(CacheBinding, OpensAnewOnceWhenTheConnectionWasLost) {
  ask(0);
  m_directory.failSearch({Kind::Gone, -1, ""}, 1);
  m_ccache = "FILE:/renewed";
  EXPECT_THAT(*ask(0), SizeIs(1));
  ASSERT_THAT(m_directory.opened(), SizeIs(2));
  EXPECT_EQ(m_directory.opened().back().ccacheName, "FILE:/renewed");
  EXPECT_EQ(m_binding.connections(), 2U);

  m_directory.failSearch({Kind::Gone, -1, ""});
  EXPECT_EQ(failure(), "-1 Can't contact LDAP server");
  EXPECT_THAT(m_directory.opened(), SizeIs(3));
}

TEST_F(CacheBinding, OpensAnewWhenTheServerEndsTheSession) {
  ask(0);
  m_directory.failSearch({Kind::Server, 52, "Server is unavailable"}, 1);
  EXPECT_THAT(*ask(0), SizeIs(1));
  EXPECT_THAT(m_directory.opened(), SizeIs(2));
}

TEST_F(CacheBinding, LeavesASilentServerAlone) {
  ask(0);
  m_directory.failSearch({Kind::Server, -5, "no answer in time"}, 1);
  EXPECT_EQ(failure(), "-5 no answer in time");
  EXPECT_EQ(failure(), "-5 no answer in time");
  EXPECT_THAT(m_directory.searches(), SizeIs(2));
  m_clock.advance(ADCacheBinding::RETRY_PAUSE);
  EXPECT_EQ(failure(), "none");
  EXPECT_THAT(m_directory.opened(), SizeIs(2));
}

TEST_F(CacheBinding, KeepsTheConnectionWhenTheServerRefusesAQuestion) {
  ask(0);
  m_directory.failSearch({Kind::Server, 53, "unwilling"}, 1);
  try {
    ask(0);
    FAIL();
  } catch (const LDAPException& refusal) {
    EXPECT_STREQ(refusal.what(), "unwilling");
    EXPECT_EQ(refusal.rc(), 53);
  }
  EXPECT_THAT(*ask(0), SizeIs(1));
  EXPECT_THAT(m_directory.opened(), SizeIs(1));
}

TEST_F(CacheBinding, SaysWhyThereIsNoTicket) {
  int asked = 0;
  ADCacheBinding binding({"corp.test", false, "", "", ""}, [&]() -> std::string {
    ++asked;
    throw KerberosException(-1765328228, "Cannot get a ticket", __FILE__, __LINE__);
  });
  for (int i = 0; i < 2; ++i) {
    try {
      binding.search({});
      FAIL();
    } catch (const KerberosException& failure) {
      EXPECT_STREQ(failure.what(), "Cannot get a ticket");
      EXPECT_EQ(failure.rc(), -1765328228);
    }
  }
  EXPECT_EQ(asked, 1);
  m_clock.advance(ADCacheBinding::RETRY_PAUSE);
  EXPECT_FALSE(binding.isHealthy());
  EXPECT_EQ(asked, 2);
  EXPECT_THAT(m_directory.opened(), IsEmpty());
}

TEST_F(CacheBinding, AFileThatCannotBeWrittenIsAMissingTicketToo) {
  ADCacheBinding binding({"corp.test", false, "", "", ""}, []() -> std::string {
    LUMO_THROW(lumo::SystemException, -1, "Cannot write /var/morvand/machine.ccache: No space left on device");
  });
  try {
    binding.search({});
    FAIL();
  } catch (const KerberosException& failure) {
    EXPECT_STREQ(failure.what(), "Cannot write /var/morvand/machine.ccache: No space left on device");
  }
}

TEST_F(CacheBinding, ServesTheSeamWithoutItsMemory) {
  const std::string name = HOST;
  ask(USUAL);
  EXPECT_TRUE(m_binding.fetch(name, {"cn"}));
  EXPECT_TRUE(m_binding.fetch(name, {"cn"}));
  EXPECT_THAT(m_directory.searches(), SizeIs(3));
  EXPECT_FALSE(m_binding.fetch("CN=none,DC=corp,DC=test", {}));
  EXPECT_FALSE(m_binding.fetch("", {}));
  EXPECT_EQ(m_binding.domain(), "corp.test");
}

}  // namespace
