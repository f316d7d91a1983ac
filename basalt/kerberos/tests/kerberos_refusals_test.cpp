#include "basalt/kerberos/kerberos_refusals.h"

#include "basalt/kerberos/tests/own_kerberos_context.h"
#include "testsupport/manual_clock.h"

namespace {

constexpr auto FAILED = static_cast<krb5_error_code>(KRB5KDC_ERR_PREAUTH_FAILED);

class PasswordRefusalsTest : public OwnKerberosContext {
 protected:
  static lumo::Shredder password(const std::string& text) { return lumo::Shredder(lumo::Shredder2(text)); }
  void add(const std::string& principal, const std::string& text, krb5_error_code code = FAILED) {
    refusals.add(context->get(), principal, password(text), {code, "words"});
  }
  bool knows(const std::string& principal, const std::string& text) {
    return refusals.find(context->get(), principal, password(text)).has_value();
  }

  testsupport::ManualClock clock;
  lumo::PasswordRefusals refusals;
};

TEST_F(PasswordRefusalsTest, StandForThisPasswordOfThisPrincipalForAMinute) {
  EXPECT_FALSE(knows("a@R", "one"));
  add("a@R", "one");
  EXPECT_TRUE(knows("a@R", "one"));
  EXPECT_EQ(refusals.find(context->get(), "a@R", password("one"))->text, "words");
  EXPECT_EQ(refusals.find(context->get(), "a@R", password("one"))->code, FAILED);
  for (const char* other : {"onE", "one ", "on", ""}) EXPECT_FALSE(knows("a@R", other)) << other;
  EXPECT_FALSE(knows("b@R", "one"));
  clock.advance(std::chrono::seconds(60));
  EXPECT_FALSE(knows("a@R", "one"));
}

TEST_F(PasswordRefusalsTest, AreNoOtherFailures) {
  for (const auto code : {0, static_cast<int>(KRB5_KDC_UNREACH), static_cast<int>(KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN),
                          static_cast<int>(KRB5KRB_AP_ERR_SKEW), static_cast<int>(KRB5_PREAUTH_FAILED), ENOMEM}) {
    add("a@R", "one", code);
    EXPECT_FALSE(knows("a@R", "one")) << code;
  }
  for (const auto code :
       {KRB5KDC_ERR_CLIENT_REVOKED, KRB5KDC_ERR_KEY_EXP, KRB5KDC_ERR_NAME_EXP, KRB5KRB_AP_ERR_BAD_INTEGRITY}) {
    const std::string name = std::to_string(code);
    add(name, "one", static_cast<krb5_error_code>(code));
    EXPECT_TRUE(knows(name, "one")) << code;
  }
}

TEST_F(PasswordRefusalsTest, AreAFewAndTheOldestGoes) {
  for (std::size_t i = 0; i <= lumo::PasswordRefusals::MOST; ++i) add("a@R", std::to_string(i));
  EXPECT_FALSE(knows("a@R", "0"));
  for (std::size_t i = 1; i <= lumo::PasswordRefusals::MOST; ++i) EXPECT_TRUE(knows("a@R", std::to_string(i))) << i;
}

}  // namespace
