#include "base/include/exceptions.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>

namespace {

template <class Derived, class Base>
constexpr bool directly = std::is_base_of_v<Base, Derived> && sizeof(Derived) == sizeof(Base);

static_assert(directly<lumo::Base_Exception, LUMOException>);
static_assert(directly<BASALTException, LUMOException>);
static_assert(directly<lumo::FileSecurityException, LUMOException>);
static_assert(!std::is_base_of_v<lumo::Base_Exception, lumo::FileSecurityException>);
static_assert(directly<lumo::IOException, lumo::Base_Exception>);
static_assert(directly<lumo::SystemException, lumo::Base_Exception>);
static_assert(directly<lumo::DNSUnavailableException, lumo::Base_Exception>);
static_assert(directly<lumo::EndOfFileException, lumo::Base_Exception>);
static_assert(directly<lumo::BadDataException, lumo::Base_Exception>);
static_assert(directly<lumo::IPCException, lumo::Base_Exception>);
static_assert(!std::is_base_of_v<lumo::IOException, lumo::IPCException>);
static_assert(directly<BaseException, BASALTException>);
static_assert(directly<LDAPException, BASALTException>);

TEST(Exceptions, TextsAreCopies) {
  std::string message = "went wrong";
  std::string name = "Name";
  const lumo::Base_Exception failure("base/x.cpp", 7, message.c_str(), name.c_str(), 42);
  message.assign(10, '#');
  name.assign(4, '#');
  EXPECT_STREQ(failure.what(), "went wrong");
  EXPECT_STREQ(failure.className(), "Name");
  EXPECT_EQ(failure.rc(), 42);
  EXPECT_EQ(failure.file(), "base/x.cpp");
  EXPECT_EQ(failure.line(), 7);
}

TEST(Exceptions, SubclassBringsItsOwnNameAndNoCode) {
  const lumo::SystemException failure("x.cpp", 1, "text");
  EXPECT_STREQ(failure.className(), "SystemException");
  EXPECT_EQ(failure.rc(), -1);
  EXPECT_STREQ(LDAPException("x.cpp", 1, "text").className(), "LDAPException");
}

TEST(Exceptions, ThrowKnowsItsPlaceAndItsType) {
  const int line = __LINE__ + 2;
  try {
    LUMO_THROW(lumo::IOException, 5, "cannot %s %d", "count to", 3);
    FAIL();
  } catch (const LUMOException& failure) {
    EXPECT_STREQ(failure.what(), "cannot count to 3");
    EXPECT_STREQ(failure.className(), "IOException");
    EXPECT_EQ(failure.rc(), 5);
    EXPECT_EQ(failure.file(), "base/tests/exceptions_test.cpp");
    EXPECT_EQ(failure.line(), line);
  }
}

TEST(Exceptions, FileSecurityIsCaughtAsTheRootOnly) {
  bool asBase = false;
  try {
    try {
      LUMO_THROW(lumo::FileSecurityException, -1, "unsafe");
    } catch (const lumo::Base_Exception&) {
      asBase = true;
    }
  } catch (const LUMOException& failure) {
    EXPECT_STREQ(failure.className(), "FileSecurityException");
  }
  EXPECT_FALSE(asBase);
}

TEST(Exceptions, MessageHoldsAtMost511Characters) {
  const std::string fits(511, 'a');
  EXPECT_EQ(lumo::exceptionMessage("%s", fits.c_str()), fits);
  EXPECT_EQ(lumo::exceptionMessage("%sb", fits.c_str()), fits);
}

TEST(Exceptions, CopyOutlivesTheOriginal) {
  auto original = std::make_unique<lumo::BadDataException>("x.cpp", 1, "text");
  const LUMOException copy(*original);
  original.reset();
  EXPECT_STREQ(copy.what(), "text");
  EXPECT_STREQ(copy.className(), "BadDataException");
}

}  // namespace
