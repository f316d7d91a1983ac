#include <gmock/gmock.h>

#include "basalt/directory/ad_cache_binding.h"
#include "base/include/exceptions.h"
#include "testsupport/manual_clock.h"
#include "testsupport/memory_directory.h"
#include "testsupport/watched_directory.h"

namespace {

using testing::IsEmpty;
using testing::SizeIs;
using testsupport::MemoryDirectory;
using Kind = MemoryDirectory::Failure::Kind;

constexpr const char* ATTRIBUTES[] = {"cn", nullptr};

std::string host(std::size_t number) { return "CN=h" + std::to_string(number) + ",DC=corp,DC=test"; }

class Prefetch : public testing::Test {
 protected:
  void add(std::size_t from, std::size_t to) {
    for (std::size_t i = from; i < to; ++i) m_directory.add(host(i), {{"cn", {"h" + std::to_string(i)}}});
  }
  // As memory has it: "none" for what is not there, "unknown" for what memory does not know.
  std::string known(const std::string& dn) {
    const auto found = m_binding.recall("(objectClass=*)", dn, ATTRIBUTES, 0, 0);
    return !found ? "unknown" : found->empty() ? "none" : found->front()->getString("cn", "");
  }
  std::size_t questions() const { return m_directory.searches().size(); }

  testsupport::ManualClock m_clock;
  MemoryDirectory m_directory{"corp.test"};
  testsupport::DirectoryInForce m_inForce{m_directory};
  ADCacheBinding m_binding{{"corp.test", true, "", "", ""}, [] { return "FILE:/agent"; }};
};

TEST_F(Prefetch, AnswersLaterSearchesWithFewQuestions) {
  add(0, 600);
  std::vector<std::string> dns;
  for (std::size_t i = 0; i < 700; ++i) dns.push_back(host(i));
  m_binding.prefetch(dns, ATTRIBUTES);
  const std::size_t asked = (700 + ADCacheBinding::PREFETCH_BATCH - 1) / ADCacheBinding::PREFETCH_BATCH;
  EXPECT_EQ(questions(), asked);
  EXPECT_EQ(m_directory.searches().front().what.scope, SearchScope::Subtree);
  EXPECT_EQ(m_directory.searches().front().what.base, "");
  for (std::size_t i = 0; i < 700; ++i) {
    const auto found = m_binding.search("(objectClass=*)", host(i), ATTRIBUTES, 0, 0, CACHE_READ, false, false);
    EXPECT_EQ(found->size(), i < 600 ? 1U : 0U) << i;
  }
  EXPECT_EQ(questions(), asked);
}

TEST_F(Prefetch, GivesUpAServerThatTakesTooLongForAllQuestions) {
  testsupport::WatchedDirectory slow(m_directory);
  slow.onSearch = [this](const auto&, const auto&) { m_clock.advance(std::chrono::seconds(14)); };
  const testsupport::DirectoryInForce inForce(slow);
  add(0, 1000);
  std::vector<std::string> dns;
  for (std::size_t i = 0; i < 1000; ++i) dns.push_back(host(i));
  const auto begin = m_clock.steadyNow();
  try {
    m_binding.prefetch(dns, ATTRIBUTES);
    ADD_FAILURE() << "nothing thrown";
  } catch (const LDAPException& failure) {
    EXPECT_STREQ(failure.what(), "The directory of 'corp.test' takes too long to give many objects");
    EXPECT_TRUE(LDAPBinding::isServerUnavailableException(failure));
  }
  EXPECT_EQ(questions(), 5U) << "the fifth began at 56 seconds";
  EXPECT_EQ(m_clock.steadyNow() - begin, std::chrono::seconds(70));
  EXPECT_EQ(known(host(0)), "h0") << "what has come is known";
  EXPECT_THROW(m_binding.fetch(host(999), {"cn"}), LDAPException);
  EXPECT_EQ(questions(), 5U) << "nobody waits for it again so soon";
}

TEST_F(Prefetch, AsksForNothingTwice) {
  add(0, 2);
  m_binding.prefetch({host(0), "cn=H0,dc=corp,dc=test", ""}, ATTRIBUTES);
  EXPECT_EQ(m_directory.searches().back().what.filter, "(|(cn=h0))");
  m_binding.prefetch({host(0), host(1), host(2)}, ATTRIBUTES);
  EXPECT_EQ(m_directory.searches().back().what.filter, "(|(cn=h1)(cn=h2))");
  EXPECT_EQ(known(host(2)), "none");
  m_binding.prefetch({host(2)}, ATTRIBUTES);
  m_binding.prefetch({}, ATTRIBUTES);
  EXPECT_EQ(questions(), 2U);
}

TEST_F(Prefetch, EscapesWhatAFilterGivesAMeaningTo) {
  const std::string odd = "CN=a (b*)\\\\c\\, d,DC=corp,DC=test";
  m_directory.add(odd, {{"cn", {"odd"}}});
  m_binding.prefetch({odd, "CN=a (bx)\\\\c\\, d,DC=corp,DC=test"}, ATTRIBUTES);
  EXPECT_EQ(questions(), 1U);
  EXPECT_EQ(m_directory.searches().back().what.filter, "(|(cn=a \\28b\\2a\\29\\5cc, d)(cn=a \\28bx\\29\\5cc, d))");
  EXPECT_EQ(known(odd), "odd");
  EXPECT_EQ(known("CN=a (bx)\\\\c\\, d,DC=corp,DC=test"), "none");
}

TEST_F(Prefetch, TellsObjectsOfOneCommonNameApart) {
  const std::string here = "CN=h0,OU=here,DC=corp,DC=test", there = "cn=H0,OU=there,DC=sub,DC=corp,DC=test";
  add(0, 1);
  m_directory.add(here, {{"cn", {"here"}}});
  m_directory.add(there, {{"cn", {"there"}}});
  const std::string gone = "CN=h0,OU=gone,DC=corp,DC=test";
  m_binding.prefetch({here, gone, there, host(0)}, ATTRIBUTES);
  EXPECT_EQ(questions(), 1U);
  EXPECT_EQ(m_directory.searches().back().what.filter, "(|(cn=h0))");
  EXPECT_EQ(known(here), "here");
  EXPECT_EQ(known(there), "there");
  EXPECT_EQ(known(host(0)), "h0");
  EXPECT_EQ(known(gone), "none");
}

// The object may be the one that was asked for, its name spelled in a way that only the server knows.
TEST_F(Prefetch, AsksOnceMoreForAMissingNameWhoseCommonNameAnotherObjectHas) {
  add(0, 2);
  m_directory.add("CN=h2,OU=moved,DC=corp,DC=test", {});
  m_binding.prefetch({host(0), host(1), host(2), host(3)}, ATTRIBUTES);
  EXPECT_EQ(questions(), 2U);
  EXPECT_EQ(m_directory.searches().back().what.base, host(2));
  EXPECT_EQ(m_directory.searches().back().what.scope, SearchScope::Base);
  EXPECT_EQ(known(host(1)), "h1");
  EXPECT_EQ(known(host(2)), "none");
  EXPECT_EQ(known(host(3)), "none");
}

TEST_F(Prefetch, AsksByTheWholeNameForWhatHasNoCommonName) {
  const std::string unit = "OU=Unit (1),DC=corp,DC=test", two = "CN=a+OU=b,DC=corp,DC=test";
  add(0, 1);
  m_directory.add(unit, {{"cn", {"unit"}}});
  m_directory.add(two, {{"cn", {"two"}}});
  m_binding.prefetch({unit, host(0), two, "OU=none,DC=corp,DC=test"}, ATTRIBUTES);
  EXPECT_EQ(questions(), 1U);
  EXPECT_EQ(
      m_directory.searches().back().what.filter,
      "(|(distinguishedName=OU=Unit \\281\\29,DC=corp,DC=test)(cn=h0)(distinguishedName=CN=a+OU=b,DC=corp,DC=test)"
      "(distinguishedName=OU=none,DC=corp,DC=test))");
  EXPECT_EQ(known(unit), "unit");
  EXPECT_EQ(known(two), "two");
  EXPECT_EQ(known(host(0)), "h0");
  EXPECT_EQ(known("OU=none,DC=corp,DC=test"), "none");
}

TEST_F(Prefetch, KnowsANameThatIsSpelledOtherwise) {
  m_directory.add("CN=a\\,b,OU=x,DC=corp,DC=test", {{"cn", {"ab"}}});
  const std::string spelled = "cn=A\\2cb , ou=X,DC=corp,DC=TEST";
  m_binding.prefetch({spelled}, ATTRIBUTES);
  EXPECT_EQ(questions(), 1U);
  EXPECT_EQ(known(spelled), "ab");
}

TEST_F(Prefetch, AsksForItselfWhatIsNoName) {
  add(0, 1);
  m_directory.add("<GUID=1>", {{"cn", {"by guid"}}});
  m_binding.prefetch({"<GUID=1>", host(0)}, ATTRIBUTES);
  EXPECT_EQ(questions(), 2U);
  EXPECT_EQ(m_directory.searches().front().what.base, "<GUID=1>");
  EXPECT_EQ(m_directory.searches().front().what.scope, SearchScope::Base);
  EXPECT_EQ(known("<GUID=1>"), "by guid");
  EXPECT_EQ(known(host(0)), "h0");
}

TEST_F(Prefetch, LeavesOutWhatTheServerRefuses) {
  add(0, 2);
  m_directory.failSearch({Kind::Server, 34, "Invalid DN syntax"}, 2);
  m_binding.prefetch({host(0), host(1)}, ATTRIBUTES);
  // The two together, then each by itself.
  EXPECT_EQ(questions(), 3U);
  EXPECT_EQ(known(host(0)), "unknown");
  EXPECT_EQ(known(host(1)), "h1");
}

TEST_F(Prefetch, AsksForEachByItselfWhenMoreIsFoundThanTheServerGives) {
  add(0, 2);
  m_directory.failSearch({Kind::Server, 4, "Size limit exceeded"}, 1);
  m_binding.prefetch({host(0), host(1), host(2)}, ATTRIBUTES);
  EXPECT_EQ(questions(), 4U);
  EXPECT_EQ(known(host(0)), "h0");
  EXPECT_EQ(known(host(1)), "h1");
  EXPECT_EQ(known(host(2)), "none");
}

// A question's first name and its attributes.
std::string shortened(const DirectorySearch& what) {
  std::string text = what.filter.substr(0, what.filter.find(')'));
  for (const auto& name : what.attributes) text += " " + name;
  return text;
}

TEST_F(Prefetch, TellsTheServerTheNextQuestionBeforeItLooksAtAnAnswer) {
  testsupport::WatchedDirectory directory(m_directory);
  std::vector<std::string> said;
  directory.onAnnounce = [&said](const auto& what) { said.push_back("announced " + shortened(what)); };
  directory.onSearch = [&said](const auto&, const auto& what) { said.push_back("asked " + shortened(what)); };
  const testsupport::DirectoryInForce inForce(directory);
  ASSERT_TRUE(m_binding.isHealthy());
  std::vector<std::string> dns;
  for (std::size_t i = 0; i < 2 * ADCacheBinding::PREFETCH_BATCH + 1; ++i) dns.push_back(host(i));
  m_binding.prefetch(dns, ATTRIBUTES);
  const std::string second = std::to_string(ADCacheBinding::PREFETCH_BATCH);
  const std::string third = std::to_string(2 * ADCacheBinding::PREFETCH_BATCH);
  const std::string rest = " cn objectGUID";
  EXPECT_THAT(said, testing::ElementsAre("announced (|(cn=h0" + rest, "announced (|(cn=h" + second + rest,
                                         "asked (|(cn=h0" + rest, "announced (|(cn=h" + third + rest,
                                         "asked (|(cn=h" + second + rest, "asked (|(cn=h" + third + rest));
}

TEST_F(Prefetch, FailsWhenTheDirectoryIsAway) {
  add(0, 1);
  m_directory.failOpen({Kind::Unreachable, -1, ""});
  try {
    m_binding.prefetch({host(0)}, ATTRIBUTES);
    FAIL();
  } catch (const LDAPException& failure) {
    EXPECT_STREQ(failure.what(), "No directory server of the domain 'corp.test' answers");
    EXPECT_TRUE(isServerUnavailable(failure));
  }
  EXPECT_THROW(m_binding.prefetch({"<GUID=1>"}, ATTRIBUTES), LDAPException);
  EXPECT_EQ(known(host(0)), "unknown");
}

TEST_F(Prefetch, IsGoodForTheMemorysLife) {
  add(0, 1);
  m_binding.prefetch({host(0)}, ATTRIBUTES);
  m_clock.advance(ADCacheBinding::CACHE_LIFE);
  EXPECT_EQ(known(host(0)), "unknown");
}

// A server that answers with another spelling of the name: what was asked for is not taken for missing.
class OtherSpelling : public DirectoryConnector {
 public:
  explicit OtherSpelling(MemoryDirectory& directory) : m_directory(directory) {}
  std::unique_ptr<DirectoryConnection> open(const Target& target) override {
    class Connection : public DirectoryConnection {
     public:
      explicit Connection(std::unique_ptr<DirectoryConnection> inner) : m_inner(std::move(inner)) {}
      std::vector<ADObjectPtr> search(const DirectorySearch& what) override {
        if (what.scope == SearchScope::Base) return m_inner->search(what);
        ADObjectPtr other(new lumo::ADObject("2.5.4.3=h0,DC=corp,DC=test"));
        other->set("cn", {"other"});
        return {other};
      }
      ADObjectPtr rootDse() override { return m_inner->rootDse(); }

     private:
      std::unique_ptr<DirectoryConnection> m_inner;
    };
    return std::make_unique<Connection>(m_directory.open(target));
  }
  std::string site(const std::string&) override { return {}; }

 private:
  MemoryDirectory& m_directory;
};

TEST_F(Prefetch, DoesNotTakeAnotherSpellingForAMissingObject) {
  add(0, 1);
  OtherSpelling other(m_directory);
  DirectoryConnector::setInstance(&other);
  m_binding.prefetch({host(0), host(1)}, ATTRIBUTES);
  EXPECT_EQ(known(host(0)), "h0");
  EXPECT_EQ(known(host(1)), "none");
}

}  // namespace
