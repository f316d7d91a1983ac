#include "cloud/rest/machine_sign_in.h"

#include <gmock/gmock.h>

#include "cloud/http/tests/curl_object_fixture.h"

TEST(EmbeddedObject, IsFromTheFirstOpeningBraceToTheLastClosingOne) {
  struct Row {
    std::string text;
    std::string object;
    char missing;
  };
  const Row rows[] = {
      {R"({"a":1})", R"({"a":1})", '\0'},
      {R"(<html>{"a":1}</html>)", R"({"a":1})", '\0'},
      {"} { }", "{ }", '\0'},
      {"x{}y", "{}", '\0'},
      {R"({"a":{"b":1}} rest)", R"({"a":{"b":1}})", '\0'},
      {R"({"a":1} and {"b":2})", R"({"a":1} and {"b":2})", '\0'},
      {std::string("\0{\0}\0", 5), std::string("{\0}", 3), '\0'},
      {"", "", '{'},
      {"no object", "", '{'},
      {"only } here", "", '{'},
      {"{ no end", "", '}'},
      {"} before {", "", '}'},
      {"{", "", '}'},
      {"}{", "", '}'},
  };
  for (const Row& row : rows) {
    const EmbeddedObject found = findEmbeddedObject(row.text);
    EXPECT_EQ(found.text, row.object) << row.text;
    EXPECT_EQ(found.missing, row.missing) << row.text;
  }
}

class MachineSignIn : public CurlObjectTest {};

TEST_F(MachineSignIn, WithoutACacheOfTheMachineTheConnectionStaysAsItIs) {
  source.machineCacheName.clear();
  CurlObject object;
  object.setProxy("proxy.example.test:8080", "", "", lumo::Shredder2());
  const std::set<int> before = object.recordedOptions();
  EXPECT_THROW(const ConnectorVisit visit(object), LUMOException);
  EXPECT_EQ(object.recordedOptions(), before);
}

TEST_F(MachineSignIn, VisitThatAskedNothingChangesNothing) {
  CurlObject object;
  { const ConnectorVisit visit(object); }
  EXPECT_EQ(object.recordedOptions(), defaults);
}
