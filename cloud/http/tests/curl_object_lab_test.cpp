// The HTTP request object at real proxies and a real web server of a domain.
#include <gmock/gmock.h>

#include <chrono>
#include <cstdlib>

#include "base/include/parameter_names.h"
#include "base/include/string_helpers.h"
#include "cloud/http/tests/curl_words.h"
#include "cloud/http/tests/lab.h"
#include "cloud/include/curl_object.h"
#include "testsupport/process.h"

using std::chrono::seconds;
using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::UnorderedElementsAre;
using namespace labtest;

namespace {

// The object of one test, ready to trust the lab's web servers.
struct Lab : public testing::Test {
  Lab() {
    object = std::make_unique<CurlObject>();
    trust();
  }
  ~Lab() override { unsetenv("KRB5CCNAME"); }

  void trust() { object->setOpt(CURLOPT_CAINFO, lab("CA")); }
  void setProxy(const std::string& proxy, const std::string& type, const std::string& user,
                const std::string& password) {
    object->setProxy(lab("PROXY_" + proxy), type, user, lumo::Shredder2(password));
  }
  // Status of a GET of the platform, or libcurl's words.
  std::string get() {
    try {
      return std::to_string(object->perform(lab("PLATFORM_URL"), "", 0).first);
    } catch (const lumo::CurlException& failure) {
      return failure.what();
    }
  }
  // Tunnels stay open as long as the object.
  void hangUp() { object.reset(); }

  std::unique_ptr<CurlObject> object;
  const std::string refused = curltest::transferFailed(CURLE_RECV_ERROR);
};

std::vector<std::string> headersOf(const std::vector<Entry>& entries) {
  std::vector<std::string> headers;
  for (const Entry& entry : entries) headers.push_back(entry.auth);
  return headers;
}

struct Scheme {
  const char* proxy;
  const char* type;
  const char* header;     // how the Proxy-Authorization header begins
  const char* principal;  // user in the log
};

class LabScheme : public Lab, public testing::WithParamInterface<Scheme> {};

}  // namespace

TEST_P(LabScheme, LetsTheRightPasswordInAndNoOther) {
  const Scheme& scheme = GetParam();
  {
    const LogTail log(scheme.proxy);
    setProxy(scheme.proxy, scheme.type, "alice", passwordOf("alice"));
    EXPECT_EQ(get(), "200");
    EXPECT_EQ(get(), "200");
    hangUp();
    EXPECT_THAT(log.letIn(1), ElementsAre(scheme.principal)) << "one tunnel for two requests";
    EXPECT_THAT(headersOf(log.entries(1)), Contains(testing::StartsWith(scheme.header)));
  }
  object = std::make_unique<CurlObject>();
  trust();
  const LogTail log(scheme.proxy);
  setProxy(scheme.proxy, scheme.type, "alice", "wr0ng-password");
  EXPECT_EQ(get(), refused);
  hangUp();
  EXPECT_THAT(LogTail::opened(log.entries(1)), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Schemes, LabScheme,
    testing::Values(Scheme{"BASIC", "basic", "Basic%20", "alice"}, Scheme{"BASIC", "anyauth", "Basic%20", "alice"},
                    Scheme{"DIGEST", "digest", "Digest%20", "alice"}, Scheme{"DIGEST", "anyauth", "Digest%20", "alice"},
                    Scheme{"NTLM", "ntlm", "NTLM%20", "CORP\\alice"},
                    Scheme{"NTLM", "anyauth", "NTLM%20", "CORP\\alice"},
                    Scheme{"NEGOTIATE", "negotiate", "Negotiate%20", "alice@CORP.FERRO.TEST"},
                    Scheme{"NEGOTIATE", "anyauth", "Negotiate%20", "alice@CORP.FERRO.TEST"},
                    Scheme{"NEGBASIC", "negotiate", "Negotiate%20", "alice@CORP.FERRO.TEST"},
                    Scheme{"NEGBASIC", "anyauth", "Negotiate%20", "alice@CORP.FERRO.TEST"},
                    Scheme{"NEGBASIC", "basic", "Basic%20", "alice"}),
    [](const auto& instance) { return std::string(instance.param.proxy) + "_" + instance.param.type; });

TEST_F(Lab, OpenProxyNeedsNothing) {
  const LogTail log("OPEN");
  setProxy("OPEN", "", "", "");
  EXPECT_EQ(get(), "200");
  hangUp();
  const auto entries = log.entries(1);
  ASSERT_THAT(entries, SizeIs(1));
  EXPECT_EQ(entries[0].auth, "-");
}

TEST_F(Lab, OpenProxyWithAnyAuthGetsNoPassword) {
  const LogTail log("OPEN");
  setProxy("OPEN", "anyauth", "alice", passwordOf("alice"));
  EXPECT_EQ(get(), "200");
  hangUp();
  EXPECT_THAT(headersOf(log.entries(1)), Each("-"));
}

TEST_F(Lab, MachinePassesAsItself) {
  for (const char* type : {"negotiate", "anyauth"}) {
    for (const char* proxy : {"NEGOTIATE", "NEGBASIC"}) {
      const LogTail log(proxy);
      setProxy(proxy, type, MACHINE_MARKER, "");
      EXPECT_EQ(get(), "200") << type << " at " << proxy;
      object->clearProxy(false);
      get();  // direct: the tunnel is left and closed
      EXPECT_THAT(log.letIn(1), ElementsAre(lab("MACHINE") + "@" + lab("REALM")));
    }
  }
}

TEST_F(Lab, PasswordIsNeverSentWhereNegotiateWasOffered) {
  const LogTail log("NEGBASIC");
  for (const std::string& password : {passwordOf("alice"), std::string("wr0ng-password")}) {
    setProxy("NEGBASIC", "anyauth", "alice", password);
    get();
  }
  hangUp();
  for (const std::string& header : headersOf(log.entries(3))) EXPECT_THAT(header, Not(testing::StartsWith("Basic")));
}

TEST_F(Lab, TicketOfRootsOwnIsNeverUsed) {
  setenv("KRB5CCNAME", "FILE:/run/root-of-this-test.ccache", 1);
  testsupport::ProcessOptions typed;
  typed.input = passwordOf("bob") + "\n";
  ASSERT_EQ(testsupport::run({"kinit", "bob"}, typed).status, 0);
  for (const char* type : {"negotiate", "anyauth"}) {
    const LogTail log("NEGOTIATE");
    setProxy("NEGOTIATE", type, "alice", "wr0ng-password");
    EXPECT_EQ(get(), refused);
    setProxy("NEGOTIATE", type, "alice", passwordOf("alice"));
    EXPECT_EQ(get(), "200");
    object->clearProxy(true);
    get();
    for (const Entry& entry : log.entries(2)) {
      EXPECT_THAT(entry.user, AnyOf("-", "alice@" + lab("REALM"))) << type;
    }
  }
}

TEST_F(Lab, TwoUsersOnOneObjectAreTwoInTheLog) {
  for (const char* proxy : {"NEGOTIATE", "DIGEST", "BASIC", "NTLM"}) {
    const LogTail log(proxy);
    for (const char* user : {"alice", "bob", "alice"}) {
      setProxy(proxy, lower(proxy), user, passwordOf(user));
      EXPECT_EQ(get(), "200") << user << " at " << proxy;
    }
    object->clearProxy(false);
    get();
    std::vector<std::string> users = log.letIn(3);
    for (std::string& user : users) user = user.substr(user.find('\\') + 1, user.find('@'));
    // The proxy writes a tunnel's line when it sees its end; nobody orders the ends of two.
    EXPECT_THAT(users, UnorderedElementsAre("alice", "bob", "alice")) << proxy;
  }
}

TEST_F(Lab, HostilePasswordArrivesToTheByte) {
  for (const char* proxy : {"BASIC", "DIGEST", "NEGOTIATE", "NEGBASIC"}) {
    setProxy(proxy, "anyauth", "odd", passwordOf("odd"));
    EXPECT_EQ(get(), "200") << proxy;
  }
}

TEST_F(Lab, AccountsThatMayNotSignInAreRefused) {
  for (const char* user : {"disabled", "expired", "stale", "nobody"}) {
    setProxy("NEGOTIATE", "negotiate", user, passwordOf(user));
    EXPECT_EQ(get(), refused) << user;
  }
}

TEST_F(Lab, UserOfAnotherRealmPassesItsProxy) {
  ASSERT_THAT(lab("WITH"), HasSubstr("mit"));
  for (const char* type : {"negotiate", "anyauth"}) {
    const LogTail log("MITNEG");
    setProxy("MITNEG", type, "carol@" + lab("MIT_REALM"), passwordOf("carol"));
    EXPECT_EQ(get(), "200") << type;
    object->clearProxy(false);
    get();
    EXPECT_THAT(log.letIn(1), ElementsAre("carol@" + lab("MIT_REALM")));
  }
}

TEST_F(Lab, ServiceNameOfNobodyIsRefused) {
  const LogTail log("NEGOTIATE");
  setProxy("NEGOTIATE", "negotiate", "alice", passwordOf("alice"));
  object->setOpt(CURLOPT_PROXY_GSS_SPN, "HTTP/nobody." + lab("DOMAIN") + "@" + lab("REALM"));
  EXPECT_EQ(get(), refused);
  hangUp();
  EXPECT_THAT(headersOf(log.entries(2)), Each("-"));
}

TEST_F(Lab, ServiceNameOfAnotherServiceIsRefusedByTheProxy) {
  setProxy("NEGOTIATE", "negotiate", "alice", passwordOf("alice"));
  object->setOpt(CURLOPT_PROXY_GSS_SPN, lab("CONNECTOR_SPN"));
  EXPECT_EQ(get(), refused);
}

TEST_F(Lab, WebServerWithNegotiateKnowsTheMachine) {
  lumo::GSSCredential credential;
  object->clearProxy(false);
  object->setOpt(CURLOPT_PROXY_GSS_CRED, credential.acquireCred(ADHelper::GetMachineCredCache().c_str()));
  object->setOpt(CURLOPT_PROXY_GSS_SPN, lab("CONNECTOR_SPN"));
  object->setOpt(CURLOPT_PROXY_GSS_SETUP_FUNCTION, &serverGssSetup);
  object->serverGssCallbacks = ProxyGssCallbacks();
  object->serverGssCallbacks.kdcLocator = reinterpret_cast<void*>(&krb5_dc_locator_callback);
  object->setOpt(CURLOPT_PROXY_GSS_SETUP_DATA, &object->serverGssCallbacks);
  object->setOpt(CURLOPT_HTTPAUTH, 4);
  object->setOpt(CURLOPT_USERNAME, ":");
  const std::string url = lab("CONNECTOR_URL") + (lab("CONNECTOR_URL").back() == '/' ? "" : "/") + "iwa/SiteCheck";
  for (int i = 0; i < 2; ++i) EXPECT_EQ(object->perform(url, "", 0).first, 200) << i;
  EXPECT_EQ(object->perform(url, "posted", 1).first, 200);
  object->clearOpt(CURLOPT_PROXY_GSS_CRED);
  EXPECT_EQ(object->perform(url, "", 0).first, 401) << "no credential, no entrance on the kept connection";
}

TEST_F(Lab, KdcThatIsDownEndsInARefusalWithinBounds) {
  setProxy("NEGOTIATE", "negotiate", "alice", passwordOf("alice"));
  control({"stop", "dc"});
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(get(), refused) << "no service ticket";
  // A directory that cannot be asked leaves the proxy's name as it is; what is missing is the ticket.
  setProxy("NEGOTIATE", "negotiate", "alice", passwordOf("alice"));
  EXPECT_EQ(get(), refused) << "no ticket at all";
  EXPECT_LT(std::chrono::steady_clock::now() - begin, seconds(60));
  control({"start", "dc"});
  setProxy("NEGOTIATE", "negotiate", "alice", passwordOf("alice"));
  EXPECT_EQ(get(), "200");
}
