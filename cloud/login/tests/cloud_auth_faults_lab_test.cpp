// Logins while something is wrong: clock, ticket, connector, certificate.
#include <cstdlib>

#include "cloud/http/tests/curl_words.h"
#include "cloud/login/tests/cloud_auth_lab.h"
#include "testsupport/lab_control.h"
#include "testsupport/temp_folder.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using namespace labtest;

namespace {

const std::string NO_CODE =
    "Morvane Identity Platform failed to authenticate this computer through the Morvane Connector. Please verify that "
    "'Web Server (IWA)' is an enabled service for the Morvane Connector in the Admin Portal. If 'Web Server (IWA)' is "
    "already enabled, please contact Morvane support for help.";
const std::string NO_CONNECTOR =
    "Morvane Identity Platform failed to authenticate this computer through the Morvane Connector. Please verify "
    "network connectivity and that 'Web Server (IWA)' is an enabled service for the Morvane Connector in the Admin "
    "Portal. If there is no network connectivity issues and 'Web Server (IWA)' is already enabled, please contact "
    "Morvane support for help.";
const std::string CANNOT_CONNECT = curltest::transferFailed(CURLE_COULDNT_CONNECT);

class CloudAuthFaultsLab : public CloudAuthLab {
 protected:
  static std::string loginFailure(CloudAuth& client) {
    return failureOf([&client] { client.startAuthentication(); });
  }
};

// A process whose clock the test sets while it runs: libfaketime reads the difference from a file. All in it, the
// Kerberos library above all, goes by that clock, while the connector and the controller go by the machine's. Nothing
// less is true to a host whose clock is off: a time namespace leaves the real-time clock as it is, and the difference
// to the KDC's that the library can learn by itself is kept in no cache of the machine's.
class CloudAuthClockLab : public CloudAuthFaultsLab {
 protected:
  static constexpr const char* FILE_VARIABLE = "FAKETIME_TIMESTAMP_FILE";

  static bool isThatProcess() { return std::getenv(FILE_VARIABLE) != nullptr; }
  static void runThatProcess() {
    const testsupport::TempFolder folder;
    testsupport::writeFile(folder.file("clock"), "+0\n");
    testsupport::ProcessOptions options;
    options.environment = {{"LD_PRELOAD", "/usr/$LIB/faketime/libfaketimeMT.so.1"},
                           {FILE_VARIABLE, folder.file("clock")},
                           {"FAKETIME_NO_CACHE", "1"},
                           {"FAKETIME_DONT_FAKE_MONOTONIC", "1"}};
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    const auto result = testsupport::run(
        {"/proc/self/exe", std::string("--gtest_filter=") + test.test_suite_name() + "." + test.name()}, options);
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_THAT(result.out, HasSubstr("[  PASSED  ] 1 test."));
  }
  // What was said of the Kerberos tokens since the last call.
  Texts tokens() { return log.newTexts("cloud.proxy.gss"); }
  static void setClock(const std::string& difference) {
    testsupport::writeFile(std::getenv(FILE_VARIABLE), difference + "\n");
  }
};

}  // namespace

// Six minutes, one more than Kerberos bears. First the tickets are from before the clock went wrong: the connector is
// who sees the wrong time. Then there are none, and the controller gives none for the connector.
TEST_F(CloudAuthClockLab, ClockThatIsOffIsRefusedUntilItIsSet) {
  if (!isThatProcess()) return runThatProcess();
  Client client = begin("alice");
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  end(client);
  const std::string errors = testsupport::env("FERRO_LAB") + "/apache/error.log";
  const std::size_t start = testsupport::readFile(errors).size();
  const std::string skew =
      "WARN Negotiate exchange failed: Unspecified GSS failure.  Minor code may provide more information; Clock skew "
      "too great (service name 'HTTP/" +
      used + "@" + lab("REALM") + "')";
  const std::string refusal = "CloudIwaException 9 SiteCheck HTTP code is not OK(401).";
  tokens();

  setClock("+360");
  client = begin("alice");
  steps();
  EXPECT_EQ(loginFailure(*client), refusal);
  EXPECT_THAT(steps(), ElementsAre("DEBUG Set CURL web proxy to: '" + used + ":8080' with auth: ''.",
                                   "DEBUG siteCheck: URL = https://" + used + ":443/iwa/SiteCheck, SPN = HTTP/" + used +
                                       "@" + lab("REALM") + ", httpCode = 401",
                                   "FATAL " + NO_CODE));
  EXPECT_THAT(tokens(), ElementsAre(skew, "WARN The web server's Negotiate token does not fit the exchange."));
  EXPECT_THAT(testsupport::readFile(errors).substr(start), HasSubstr("(Clock skew too great)")) << "at the connector";

  ASSERT_EQ(std::remove("/var/morvand/machine.ccache"), 0);
  EXPECT_EQ(loginFailure(*client), refusal);
  EXPECT_THAT(tokens(), ElementsAre(skew));
  EXPECT_THAT(steps(), testing::Contains("FATAL " + NO_CODE));

  setClock("-360");
  {
    // The lab's certificates are from the future then.
    const testsupport::Setting skip(lumo::PN::FERROD_IWA_SKIP_CERT_VERIFICATION, "true");
    EXPECT_EQ(loginFailure(*client), refusal);
  }
  EXPECT_THAT(tokens(), ElementsAre(skew));
  EXPECT_THAT(warned(), testing::SizeIs(7)) << "what is told above, and no more";

  setClock("+0");
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  end(client);
  EXPECT_THAT(asked(), ElementsAreArray(joined(
                           {signIn("alice", 1), {visit("USER-000003")}, signIn("alice", 4), {visit("USER-000006")}})));
  const std::string refused = nameOf(used) + " page - 401 GET /iwa/SiteCheck";
  EXPECT_THAT(came(7),
              ElementsAre(atPage(used), refused, refused, refused, atPage(used), byProxy(used), byProxy(used)));
  EXPECT_THAT(warned(), IsEmpty());
}

TEST_F(CloudAuthFaultsLab, TicketThatEndedIsMadeAnewAsSoonAsThereIsAKdc) {
  Client client = begin("alice");
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  tell(R"({"command":"expire","what":"all"})");
  control({"expire-machine-ticket"});
  stop({"kdc"});
  EXPECT_EQ(loginFailure(*client),
            "CloudIwaException 9 Internal error. Error message: Cannot get a ticket for the machine account " +
                machine + ": Cannot contact any KDC for realm '" + lab("REALM") +
                "'; check the network and the name service");
  EXPECT_THAT(warned(), ElementsAre("FATAL cloud.object: " + NO_CODE));
  mend();
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  end(client);
  EXPECT_THAT(asked(), ElementsAreArray(renewal("alice")));
  EXPECT_THAT(came(4), ElementsAre(atPage(used), atPage(used), byProxy(used), byProxy(used)));
  EXPECT_THAT(warned(), IsEmpty());
}

TEST_F(CloudAuthFaultsLab, ProxyThatIsGoneBehindTheSignInLeadsToTheNextConnector) {
  stop({squidOf(used)});
  Client client = begin("alice");
  steps();
  EXPECT_EQ(loginFailure(*client), "CurlException 8 " + CANNOT_CONNECT);
  const std::string spn = "HTTP/" + used + "@" + lab("REALM");
  EXPECT_THAT(
      steps(),
      ElementsAre("DEBUG Set CURL web proxy to: '" + used + ":8080' with auth: ''.",
                  "DEBUG siteCheck: URL = https://" + used + ":443/iwa/SiteCheck, SPN = " + spn + ", httpCode = 200",
                  "DEBUG siteCheck: complete successfully",
                  "DEBUG HTTP get URL = " + lab("PLATFORM_URL") + "security/sso?OneTimePass=(hidden)"));
  EXPECT_THAT(asked(), ElementsAre("GET iwa/SiteCheck: 200"));
  client->resetProxy();
  end(client);
  const std::string next = connectorInUse();
  EXPECT_EQ(next, otherThan(used));
  client = begin("alice");
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  end(client);
  EXPECT_THAT(came(3), testing::UnorderedElementsAre(atPage(used), atPage(next), byProxy(next)));
  EXPECT_THAT(warned(), IsEmpty());
}

TEST_F(CloudAuthFaultsLab, ProxyThatIsGoneWithinTheDialogueLetsItGoOnByTheNextConnector) {
  Client client = begin("frank");
  ASSERT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
  CloudAuthChallenge challenge;
  ASSERT_EQ(client->nextChallenge(challenge), 1);
  stop({squidOf(used)});
  EXPECT_EQ(
      failureOf([&] { client->advanceAuthentication(challenge.mechanisms.at(0).mechanismId, ACTION_START_OOB, ""); }),
      "CurlException -1 " + CANNOT_CONNECT);
  EXPECT_THAT(warned(), IsEmpty());
  client->resetProxy();
  const std::string next = connectorInUse();
  EXPECT_EQ(next, otherThan(used));
  // A connection keeps its proxy until it is given back.
  client->releaseCurl();
  client->getCurl("frank", "test");
  EXPECT_EQ(prove(*client), AUTH_NEXT_CHALLENGE);
  EXPECT_EQ(prove(*client), AUTH_DONE);
  end(client);
  EXPECT_THAT(asked(), ElementsAreArray(twoRounds("frank")));
  EXPECT_THAT(came(2), testing::UnorderedElementsAre(atPage(used), byProxy(next)))
      << "the proxy that was killed wrote nothing of its tunnel";
  EXPECT_THAT(warned(), IsEmpty());
}

TEST_F(CloudAuthFaultsLab, PageThatIsGoneIsToldAndTheSameClientWorksWhenItIsBack) {
  stop({"apache"});
  Client client = begin("alice");
  steps();
  EXPECT_EQ(loginFailure(*client), "CurlException 8 " + CANNOT_CONNECT);
  EXPECT_THAT(steps(), ElementsAre("FATAL " + NO_CONNECTOR));
  EXPECT_THAT(warned(), ElementsAre("FATAL cloud.object: " + NO_CONNECTOR));
  EXPECT_THAT(asked(), IsEmpty());
  mend();
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  end(client);
  EXPECT_THAT(came(2), ElementsAreArray(road(used)));
  EXPECT_THAT(warned(), IsEmpty());
}

TEST_F(CloudAuthFaultsLab, CertificateOfThePageHasToBeTrusted) {
  const testsupport::TempFolder nobody;
  Client client = begin("alice");
  steps();
  {
    const testsupport::Setting trusted(lumo::PN::FERROSEC_CERT_DIR, nobody.path());
    EXPECT_EQ(loginFailure(*client), "CurlException 8 " + curltest::transferFailed(CURLE_PEER_FAILED_VERIFICATION));
    EXPECT_THAT(steps(), ElementsAre("FATAL " + NO_CONNECTOR));
    EXPECT_THAT(warned(), ElementsAre("FATAL cloud.object: " + NO_CONNECTOR));
    EXPECT_THAT(asked(), IsEmpty());
    EXPECT_THAT(came(0), IsEmpty()) << "the machine's ticket went nowhere";
    const testsupport::Setting skip(lumo::PN::FERROD_IWA_SKIP_CERT_VERIFICATION, "true");
    EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  }
  end(client);
  EXPECT_THAT(came(2), ElementsAreArray(road(used)));
  EXPECT_THAT(warned(), IsEmpty());
}
