#include "basalt/directory/directory_name.h"

#include <gtest/gtest.h>

#include "basalt/directory/directory.h"

namespace {

struct NameCase {
  const char* dn;
  const char* domain;
};

class DomainOfName : public testing::TestWithParam<NameCase> {};

TEST_P(DomainOfName, IsTheDomainComponentsAtItsEnd) {
  EXPECT_EQ(dnsDomainOf(GetParam().dn), GetParam().domain) << GetParam().dn;
}

INSTANTIATE_TEST_SUITE_P(
    Plain, DomainOfName,
    testing::Values(NameCase{"CN=HOST1,CN=Computers,DC=corp,DC=example,DC=test", "corp.example.test"},
                    NameCase{"DC=corp,DC=example,DC=test", "corp.example.test"},
                    NameCase{"dc=CORP,Dc=Example", "corp.example"},
                    NameCase{"CN=a , OU=b , DC = corp , DC=test ", "corp.test"},
                    NameCase{"0.9.2342.19200300.100.1.25=corp,DC=test", "corp.test"}, NameCase{"DC=test", "test"},
                    NameCase{"CN=schema,CN=configuration", ""}, NameCase{"", ""}));

INSTANTIATE_TEST_SUITE_P(Escaped, DomainOfName,
                         testing::Values(NameCase{"CN=Smith\\, DC\\=evil,DC=corp,DC=test", "corp.test"},
                                         NameCase{"CN=Smith\\2CDC=evil,DC=corp,DC=test", "corp.test"},
                                         NameCase{"CN=a\\\\,DC=corp,DC=test", "corp.test"},
                                         NameCase{"CN=\\#a\\ ,DC=corp,DC=test", "corp.test"},
                                         NameCase{"CN=L\\C4\\8Di\\C4\\87,DC=corp,DC=test", "corp.test"},
                                         NameCase{"CN=\xC4\x8D,DC=corp,DC=test", "corp.test"},
                                         NameCase{"CN=x,DC=c\\6Frp,DC=test", "corp.test"},
                                         NameCase{"CN=#04024869,DC=#0c04636f7270,DC=test", "corp.test"},
                                         NameCase{"CN=x,DC=#0c8104636f7270,DC=test", "corp.test"}));

// A component of a name inside a zone, or one that shares its level, does not belong to the domain's own name.
INSTANTIATE_TEST_SUITE_P(Levels, DomainOfName,
                         testing::Values(NameCase{"DC=www,DC=zone.test,CN=MicrosoftDNS,DC=corp,DC=test", "corp.test"},
                                         NameCase{"CN=a+DC=evil,DC=corp,DC=test", "corp.test"},
                                         NameCase{"CN=a+OU=b,DC=corp,DC=test", "corp.test"},
                                         NameCase{"CN=x,DC=corp+OU=y,DC=test", "test"}));

INSTANTIATE_TEST_SUITE_P(NoNames, DomainOfName,
                         testing::Values(NameCase{"corp.test", ""}, NameCase{"CN=a,,DC=corp,DC=test", ""},
                                         NameCase{"CN=a,DC=corp,DC=test,", ""}, NameCase{"=a,DC=test", ""},
                                         NameCase{"CN=a\\", ""}, NameCase{"CN=a\\zz,DC=test", ""},
                                         NameCase{"CN=\"a\",DC=test", ""}, NameCase{"CN=a;DC=test", ""},
                                         NameCase{"CN=#zz,DC=test", ""}, NameCase{"CN=#0405aa,DC=test", ""},
                                         NameCase{"CN=#0,DC=test", ""}, NameCase{"CN=#,DC=test", ""},
                                         NameCase{"CN=#048205,DC=test", ""}, NameCase{"DC=,DC=test", "test"},
                                         NameCase{"<SID=S-1-5-18>", ""}));

TEST(ComparableName, IsTheSameForTheSpellingsOfAName) {
  const auto name = lumo::comparableName("CN=a\\,B,OU=c d,DC=test");
  ASSERT_TRUE(name);
  for (const char* other : {"cn=A\\2cb,ou=C D,dc=TEST", " CN = a\\,b , OU=c d , DC=test ",
                            "CN=\\61\\,B,OU=c\\20d,DC=test", "CN=#0c03612c42,OU=c d,DC=test"}) {
    const auto compared = lumo::comparableName(other);
    ASSERT_TRUE(compared) << other;
    EXPECT_EQ(compared->text, name->text) << other;
  }
}

TEST(ComparableName, IsAnotherForAnotherName) {
  const auto text = [](const char* dn) { return lumo::comparableName(dn).value().text; };
  EXPECT_NE(text("CN=a,DC=b"), text("CN=a,DC=c"));
  EXPECT_NE(text("CN=a,DC=b"), text("OU=a,DC=b"));
  EXPECT_NE(text("CN=a,DC=b"), text("CN=a\\,DC\\=b"));
  EXPECT_NE(text("CN=a,DC=b"), text("CN=a+DC=b"));
  EXPECT_NE(text("CN=a+DC=b"), text("CN=a\\+DC\\=b"));
  EXPECT_NE(text("CN=a"), text("CN=a\\00"));
  EXPECT_NE(text("CN=a,CN=2:b"), text("CN=a\\,cn\\=3:2:b"));
}

TEST(ComparableName, TellsTheCommonName) {
  const auto common = [](const char* dn) { return lumo::comparableName(dn).value().commonName; };
  EXPECT_EQ(common("cn=A\\2cb\\ ,DC=test"), "A,b ");
  EXPECT_EQ(common("OU=a,CN=b,DC=test"), "");
  EXPECT_EQ(common("CN=a+OU=b,DC=test"), "");
  for (const char* none : {"", " ", "<GUID=1>", "a", "CN=a,", "CN=\"a\""})
    EXPECT_FALSE(lumo::comparableName(none)) << none;
}

TEST(FilterValue, LeavesPlainTextAlone) {
  EXPECT_EQ(escapeFilterValue("HTTP/proxy.corp.test:3128"), "HTTP/proxy.corp.test:3128");
  EXPECT_EQ(escapeFilterValue(""), "");
}

TEST(FilterValue, EscapesWhatAFilterGivesAMeaningTo) {
  EXPECT_EQ(escapeFilterValue("a*b(c)d\\e"), "a\\2ab\\28c\\29d\\5ce");
  EXPECT_EQ(escapeFilterValue("x)(cn=*"), "x\\29\\28cn=\\2a");
}

TEST(FilterValue, EscapesBytesThatAreNoAscii) {
  EXPECT_EQ(escapeFilterValue(std::string("\x00\x7f\x80\xff", 4)), "\\00\x7f\\80\\ff");
}

class ParentOfName : public testing::TestWithParam<NameCase> {};

TEST_P(ParentOfName, IsWhatStandsBehindTheFirstComponent) {
  EXPECT_EQ(LDAPBinding::parent(GetParam().dn), GetParam().domain) << GetParam().dn;
}

INSTANTIATE_TEST_SUITE_P(
    Plain, ParentOfName,
    testing::Values(NameCase{"CN=proxy,CN=HOST1,CN=Computers,DC=corp,DC=test", "CN=HOST1,CN=Computers,DC=corp,DC=test"},
                    NameCase{"DC=corp,DC=test", "DC=test"}, NameCase{"cn=a ,  Cn = B , dc=X", "Cn = B , dc=X"},
                    NameCase{"CN=a+OU=b,DC=test", "DC=test"}));

INSTANTIATE_TEST_SUITE_P(Escaped, ParentOfName,
                         testing::Values(NameCase{"CN=Smith\\, John,OU=b\\,c,DC=test", "OU=b\\,c,DC=test"},
                                         NameCase{"CN=a\\\\,DC=test", "DC=test"},
                                         NameCase{"CN=a\\2C,DC=test", "DC=test"},
                                         NameCase{"CN=a\\+b,DC=test", "DC=test"},
                                         NameCase{"CN=#04024869,DC=#0c0474657374", "DC=#0c0474657374"},
                                         NameCase{"CN=\\ a\\ ,CN=\\ b,DC=test", "CN=\\ b,DC=test"}));

INSTANTIATE_TEST_SUITE_P(None, ParentOfName,
                         testing::Values(NameCase{"", ""}, NameCase{"DC=test", ""}, NameCase{"corp.test", ""},
                                         NameCase{"CN=a,,DC=test", ""}, NameCase{"CN=a,DC=test,", ""},
                                         NameCase{"CN=a,garbage", ""}, NameCase{"<GUID=0>", ""}));

TEST(DistinguishedName, IsToldFromOtherTexts) {
  for (const char* name : {"DC=test", "CN=a\\,b,DC=test", "CN=a + OU=b , DC=test"}) {
    EXPECT_TRUE(isDistinguishedName(name)) << name;
  }
  for (const char* text : {"", " ", "corp.test", "<SID=S-1-5-18>", "<GUID=0>", "CN=a,", "CN=a;DC=b"}) {
    EXPECT_FALSE(isDistinguishedName(text)) << text;
  }
}

}  // namespace
