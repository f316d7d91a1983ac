#include "basalt/directory/ad_cache_binding_memory.h"

#include <gtest/gtest.h>

#include "basalt/directory/ad_cache_binding_question.h"
#include "testsupport/manual_clock.h"

namespace {

using lumo::SearchMemory;
using std::chrono::milliseconds;

ADObjectPtr object(const std::string& dn) {
  ADObjectPtr made(new lumo::ADObject(dn));
  made->set("cn", {dn});
  return made;
}

class Memory : public testing::Test {
 protected:
  testsupport::ManualClock m_clock;
  SearchMemory m_memory{5};
};

TEST_F(Memory, TellsNothingFromAnAnswerWithoutObjects) {
  EXPECT_FALSE(m_memory.read("q"));
  m_memory.store("q", {});
  ASSERT_TRUE(m_memory.read("q"));
  EXPECT_TRUE(m_memory.read("q")->empty());
  m_memory.forget("q");
  EXPECT_FALSE(m_memory.read("q"));
}

TEST_F(Memory, IsGoodForItsLifeAndNotLonger) {
  m_memory.store("q", {object("a")});
  m_clock.advance(SearchMemory::LIFE - milliseconds(1));
  EXPECT_TRUE(m_memory.holds("q"));
  m_clock.advance(milliseconds(1));
  EXPECT_FALSE(m_memory.holds("q"));
  EXPECT_FALSE(m_memory.read("q"));
  EXPECT_EQ(m_memory.size(), 0U);
}

// Somebody who sets the wall clock makes nothing younger or older.
TEST_F(Memory, GoesByTheSteadyTime) {
  m_memory.store("q", {object("a")});
  m_clock.set(m_clock.now() + std::chrono::hours(24));
  EXPECT_TRUE(m_memory.read("q"));
  m_clock.set(m_clock.now() - std::chrono::hours(48));
  m_clock.advance(SearchMemory::LIFE);
  EXPECT_FALSE(m_memory.read("q"));
}

TEST_F(Memory, AnAnswerThatIsStoredAnewLivesAnew) {
  m_memory.store("q", {object("a")});
  m_clock.advance(SearchMemory::LIFE - milliseconds(1));
  m_memory.store("q", {object("b"), object("c")});
  m_clock.advance(SearchMemory::LIFE - milliseconds(1));
  ASSERT_TRUE(m_memory.read("q"));
  EXPECT_EQ(m_memory.read("q")->size(), 2U);
  EXPECT_EQ(m_memory.size(), 2U);
}

TEST_F(Memory, HoldsSoManyObjectsAndDropsTheOldestAnswers) {
  m_memory.store("two", {object("a"), object("b")});
  m_memory.store("none", {});
  m_memory.store("one", {object("c")});
  EXPECT_EQ(m_memory.size(), 4U);
  m_memory.store("further", {object("d"), object("e")});
  EXPECT_FALSE(m_memory.holds("two"));
  EXPECT_TRUE(m_memory.holds("none"));
  EXPECT_TRUE(m_memory.holds("one"));
  EXPECT_TRUE(m_memory.holds("further"));
  EXPECT_EQ(m_memory.size(), 4U);
}

TEST_F(Memory, DoesNotKeepAnAnswerThatIsTooLongNorTheOneBeforeIt) {
  SearchMemory memory;
  memory.store("q", ADObjectList(SearchMemory::MAX_ANSWER, object("a")));
  EXPECT_EQ(memory.size(), SearchMemory::MAX_ANSWER);
  memory.store("q", ADObjectList(SearchMemory::MAX_ANSWER + 1, object("a")));
  EXPECT_FALSE(memory.read("q"));
}

TEST_F(Memory, NeitherKeepsNorGivesAwayAnObjectOfACaller) {
  const ADObjectPtr given = object("a");
  m_memory.store("q", {given});
  given->set("cn", {"written"});
  const ADObjectPtr first = m_memory.read("q")->front();
  EXPECT_EQ((*first)["cn"].toString(), "a");
  first->set("cn", {"written"});
  EXPECT_EQ((*m_memory.read("q")->front())["cn"].toString(), "a");
}

TEST_F(Memory, AdoptsObjectsAndGivesAwayCopies) {
  m_memory.adopt("q", {object("a")});
  m_memory.read("q")->front()->set("cn", {"written"});
  EXPECT_EQ(m_memory.read("q")->front()->getString("cn", ""), "a");
  m_memory.adopt("q", ADObjectList(SearchMemory::MAX_ANSWER + 1, object("a")));
  EXPECT_FALSE(m_memory.holds("q"));
}

TEST(Question, IsTheSameForNamesInAnyCase) {
  const DirectorySearch what{"CN=a,DC=b", SearchScope::Base, "(cn=X)", {"cn", "keywords"}};
  EXPECT_EQ(lumo::questionText(what, 0),
            lumo::questionText({"cn=A,dc=B", SearchScope::Base, "(cn=X)", {"CN", "Keywords"}}, 0));
}

TEST(Question, IsAnotherByEachOfItsParts) {
  const std::string text = lumo::questionText({"CN=a", SearchScope::Base, "(cn=x)", {"cn"}}, 0);
  EXPECT_NE(text, lumo::questionText({"CN=b", SearchScope::Base, "(cn=x)", {"cn"}}, 0));
  EXPECT_NE(text, lumo::questionText({"CN=a", SearchScope::Subtree, "(cn=x)", {"cn"}}, 0));
  EXPECT_NE(text, lumo::questionText({"CN=a", SearchScope::Base, "(cn=X)", {"cn"}}, 0));
  EXPECT_NE(text, lumo::questionText({"CN=a", SearchScope::Base, "(cn=x)", {}}, 0));
  EXPECT_NE(text, lumo::questionText({"CN=a", SearchScope::Base, "(cn=x)", {"cn"}}, 1));
}

}  // namespace
