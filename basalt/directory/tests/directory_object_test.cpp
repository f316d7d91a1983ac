#include <gtest/gtest.h>

#include "basalt/directory/directory.h"
#include "base/include/exceptions.h"

namespace {

using lumo::ADAttribute;
using lumo::ADObject;
using lumo::SID;

TEST(ADAttribute, GivesItsFirstValueAsText) {
  EXPECT_EQ(ADAttribute().toString(), "");
  EXPECT_EQ(ADAttribute({"one", "two"}).toString(), "one");
  const std::string text = ADAttribute({"one"});
  EXPECT_EQ(text, "one");
}

TEST(ADAttribute, KeepsBytesThatAreNoText) {
  const std::string guid("\x01\x00\xff\x00", 4);
  EXPECT_EQ(ADAttribute({guid}).toString(), guid);
}

TEST(ADAttribute, ReadsItsFirstValueAsANumber) {
  EXPECT_EQ(ADAttribute({"512"}).toInt(), 512);
  EXPECT_EQ(ADAttribute({"-2147483646"}).toInt(), -2147483646);
  EXPECT_EQ(ADAttribute({"514", "512"}).toInt(), 514);
}

TEST(ADAttribute, GivesZeroForWhatIsNoNumberOrDoesNotFit) {
  for (const char* value : {"", "abc", "12x", " 12", "+5", "0x10", "2147483648", "99999999999999999999"}) {
    EXPECT_EQ(ADAttribute({value}).toInt(), 0) << value;
  }
  EXPECT_EQ(ADAttribute().toInt(), 0);
}

TEST(ADObject, ComparesAttributeNamesWithoutCase) {
  ADObject object("CN=a,DC=b");
  object.set("userAccountControl", {"512"});
  object.set("USERACCOUNTCONTROL", {"514"});
  EXPECT_EQ(object.attributes().size(), 1U);
  EXPECT_EQ(object["useraccountcontrol"].toInt(), 514);
  EXPECT_TRUE(object.attributeExists("UserAccountControl", true));
}

TEST(ADObject, TellsAnAttributeWithoutAValue) {
  ADObject object("CN=a,DC=b");
  object.set("empty", {});
  object.set("blank", {""});
  object.set("second", {"", "x"});
  EXPECT_TRUE(object.attributeExists("empty", false));
  EXPECT_FALSE(object.attributeExists("empty", true));
  EXPECT_FALSE(object.attributeExists("blank", true));
  EXPECT_TRUE(object.attributeExists("second", true));
  EXPECT_FALSE(object.attributeExists("missing", false));
}

TEST(ADObject, GivesAnEmptyAttributeForAMissingOne) {
  const ADObject object("CN=a,DC=b");
  EXPECT_TRUE(object.empty());
  EXPECT_EQ(object["missing"].toString(), "");
  EXPECT_TRUE(object.empty());
  EXPECT_EQ(object.dn(), "CN=a,DC=b");
}

TEST(SecurityIdentifier, BecomesANameThatTheDirectoryResolves) {
  EXPECT_EQ(SID("S-1-5-21-1004336348-1177238915-682003330-512").toDN(),
            "<SID=S-1-5-21-1004336348-1177238915-682003330-512>");
  EXPECT_EQ(SID("S-1-5-18").toDN(), "<SID=S-1-5-18>");
  EXPECT_EQ(SID("S-1-281474976710655-4294967295").toDN(), "<SID=S-1-281474976710655-4294967295>");
}

TEST(SecurityIdentifier, IsReadFromTheBytesOfTheDirectory) {
  const auto text = [](const std::string& bytes) { return SID::ofBytes(bytes).toString(); };
  const std::string machine(
      "\x01\x05\0\0\0\0\0\x05\x15\0\0\0\xdc\xf4\xdc\x3b\x83\x3d\x2b\x46\x82\x8b\xa6\x28\0\x02\0\0", 28);
  EXPECT_EQ(text(machine), "S-1-5-21-1004336348-1177238915-682003330-512");
  EXPECT_EQ(text(std::string("\x01\x01\xff\xfe\0\0\0\x05\xff\xff\xff\xff", 12)), "S-1-281466386776069-4294967295");
  for (const std::string& bytes : {std::string(), machine.substr(0, 7), machine.substr(0, 27), machine + '\0',
                                   '\x02' + machine.substr(1), std::string("\x01\0\0\0\0\0\0\x05", 8)}) {
    EXPECT_THROW(SID::ofBytes(bytes), lumo::BadDataException) << bytes.size();
  }
  EXPECT_THROW(SID::ofBytes(std::string("\x01\x10\0\0\0\0\0\x05", 8) + std::string(64, 'x')), lumo::BadDataException);
}

TEST(SecurityIdentifier, TakesFifteenSubAuthoritiesAndNoMore) {
  std::string text = "S-1-5";
  for (int i = 0; i < 15; ++i) text += "-1";
  EXPECT_NO_THROW(SID{text});
  EXPECT_THROW(SID{text + "-1"}, lumo::BadDataException);
}

TEST(SecurityIdentifier, RefusesEveryOtherText) {
  for (const char* text :
       {"", "S", "S-1", "S-1-", "S-1-5", "S-1-5-", "S-2-5-18", "s-1-5-18", "S-1-5--18", "S-1-5-18-", "S-1-5-18 ",
        "S-1-5-4294967296", "S-1-281474976710656-1", "S-1-5-+18", "S-1-5-18>", "S-1-5-18,DC=x", "administrator"}) {
    EXPECT_THROW(SID{text}, lumo::BadDataException) << text;
  }
}

TEST(SecurityIdentifier, NamesTheTextThatItRefuses) {
  try {
    SID("CORP\\administrator");
    FAIL();
  } catch (const lumo::BadDataException& refusal) {
    EXPECT_STREQ(refusal.what(), "'CORP\\administrator' is not a security identifier");
    EXPECT_EQ(refusal.rc(), -1);
  }
}

}  // namespace
