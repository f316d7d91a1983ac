#include "basalt/kerberos/kerberos_request.h"

#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include "basalt/kerberos/tests/own_kerberos_context.h"
#include "basalt/kerberos_abandoned.h"
#include "testsupport/fake_credential_source.h"

namespace {

using testsupport::handMadeTicket;

using KdcRequestTest = OwnKerberosContext;

TEST_F(KdcRequestTest, GivesTicketOrCodeAndText) {
  krb5_creds creds{};
  std::string text = "untouched";
  const auto good = [this](krb5_context own, krb5_creds* into) {
    EXPECT_NE(own, context->get());
    *into = handMadeTicket(own, alice, 60);
    return krb5_error_code{0};
  };
  EXPECT_EQ(lumo::runKdcRequest(context->get(), good, std::chrono::seconds(30), &creds, &text), 0);
  EXPECT_TRUE(krb5_principal_compare(context->get(), creds.client, alice));
  EXPECT_EQ(text, "untouched");
  krb5_free_cred_contents(context->get(), &creds);

  const auto refused = [](krb5_context own, krb5_creds*) {
    krb5_set_error_message(own, KRB5_PREAUTH_FAILED, "%s", "words of the request");
    return static_cast<krb5_error_code>(KRB5_PREAUTH_FAILED);
  };
  EXPECT_EQ(lumo::runKdcRequest(context->get(), refused, std::chrono::seconds(30), &creds, &text),
            static_cast<krb5_error_code>(KRB5_PREAUTH_FAILED));
  EXPECT_EQ(text, "words of the request");

  const auto throwing = [](krb5_context, krb5_creds*) -> krb5_error_code { throw std::bad_alloc(); };
  EXPECT_EQ(lumo::runKdcRequest(context->get(), throwing, std::chrono::seconds(30), &creds, nullptr), ENOMEM);
}

// What is behind the gate is what a request does after the call that gave it; all it uses belongs to it.
class AbandonedKdcRequestTest : public OwnKerberosContext {
 protected:
  ~AbandonedKdcRequestTest() override {
    if (closed) open();
    EXPECT_TRUE(lumo::joinAbandonedKdcRequests(std::chrono::seconds(30)));
  }

  krb5_error_code abandonOne(std::chrono::milliseconds limit) {
    const auto late = [gate = gate](krb5_context own, krb5_creds* into) {
      gate.wait();
      krb5_principal client = nullptr;
      EXPECT_EQ(krb5_parse_name(own, "late@CORP.TEST", &client), 0);
      *into = handMadeTicket(own, client, 60);  // dropped, and freed with the request
      krb5_free_principal(own, client);
      return krb5_error_code{0};
    };
    return lumo::runKdcRequest(context->get(), late, limit, &creds, &text);
  }
  void open() {
    closed = false;
    opener.set_value();
  }

  std::promise<void> opener;
  std::shared_future<void> gate = opener.get_future().share();
  bool closed = true;
  krb5_creds creds{};
  std::string text;
};

TEST_F(AbandonedKdcRequestTest, RequestThatDoesNotEndIsLeftBehind) {
  EXPECT_EQ(abandonOne(std::chrono::seconds(1)), static_cast<krb5_error_code>(KRB5_KDC_UNREACH));
  EXPECT_EQ(text, "No answer from a KDC within 1 seconds");
  EXPECT_EQ(creds.client, nullptr);
}

TEST_F(AbandonedKdcRequestTest, OnesThatStillRunAreWaitedForNoLongerThanTheLimit) {
  EXPECT_TRUE(lumo::joinAbandonedKdcRequests(std::chrono::milliseconds(0)));
  abandonOne(std::chrono::milliseconds(1));
  abandonOne(std::chrono::milliseconds(1));
  EXPECT_FALSE(lumo::joinAbandonedKdcRequests(std::chrono::milliseconds(0)));
  EXPECT_FALSE(lumo::joinAbandonedKdcRequests(std::chrono::milliseconds(10)));
  EXPECT_EQ(lumo::abandonedKdcRequests(), 2U);
  open();
  EXPECT_TRUE(lumo::joinAbandonedKdcRequests(std::chrono::seconds(30)));
  EXPECT_EQ(lumo::abandonedKdcRequests(), 0U);
}

TEST_F(AbandonedKdcRequestTest, ALaterRequestJoinsThoseThatHaveEnded) {
  abandonOne(std::chrono::milliseconds(1));
  const auto refused = [](krb5_context, krb5_creds*) { return static_cast<krb5_error_code>(KRB5_PREAUTH_FAILED); };
  const auto runAnother = [&] {
    EXPECT_EQ(lumo::runKdcRequest(context->get(), refused, std::chrono::seconds(30), &creds, nullptr),
              static_cast<krb5_error_code>(KRB5_PREAUTH_FAILED));
  };
  runAnother();
  EXPECT_EQ(lumo::abandonedKdcRequests(), 1U);
  open();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (lumo::abandonedKdcRequests() != 0 && std::chrono::steady_clock::now() < deadline) runAnother();
  EXPECT_EQ(lumo::abandonedKdcRequests(), 0U);
}

// The password in a request does not wait for the thread to be joined.
TEST_F(KdcRequestTest, RequestIsDestroyedOnItsThread) {
  std::thread::id there;
  std::thread::id destroyedOn;
  std::shared_ptr<int> witness(new int(0), [&](const int* value) {
    destroyedOn = std::this_thread::get_id();
    delete value;
  });
  lumo::KdcRequest request = [&there, own = std::move(witness)](krb5_context, krb5_creds*) {
    there = std::this_thread::get_id();
    return static_cast<krb5_error_code>(KRB5_PREAUTH_FAILED);
  };
  krb5_creds creds{};
  lumo::runKdcRequest(context->get(), std::move(request), std::chrono::seconds(30), &creds, nullptr);
  EXPECT_EQ(destroyedOn, there);
  EXPECT_NE(there, std::this_thread::get_id());
}

}  // namespace
