// Whom a connection trusts, at a real TLS server.
#include "base/include/parameter_names.h"
#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/http/tests/curl_object_fixture.h"
#include "cloud/rest/tests/cloud_object_client.h"
#include "testsupport/http_server.h"
#include "testsupport/temp_folder.h"

namespace {

using testing::HasSubstr;
using testing::Pair;
using testsupport::httpReply;
using testsupport::HttpRequest;
using testsupport::HttpServer;
using testsupport::tunnelReply;

constexpr char URL[] = "https://localhost/";

class CloudTrust : public CurlObjectTest {
 protected:
  CloudTrust() { access.pool.setProxy(proxyInfo(m_proxy.address())); }

  // What a client says of one exchange with the server behind the proxy.
  static std::string outcome(const std::vector<SettingsScope::Setting>& settings) {
    const SettingsScope scope(settings);
    PlainClient client;
    client.getCurl("alice", "login");
    try {
      return client.connection()->perform(URL, "", 0).second;
    } catch (const lumo::CurlException& failure) {
      return failure.what();
    }
  }
  static SettingsScope::Setting store(const std::string& path) { return {lumo::PN::FERROD_CLOUD_CERT_STORE, path}; }
  static SettingsScope::Setting skip() { return {lumo::PN::FERROD_CLOUD_SKIP_CERT_VERIFICATION, "true"}; }

  CloudCurlPoolAccess access;
  testsupport::TempFolder folder;
  const testsupport::Certificate own = testsupport::makeCertificate(folder.path(), "own", {});
  const testsupport::Certificate foreign = testsupport::makeCertificate(folder.path(), "foreign", {});

 private:
  HttpServer m_proxy{[](const HttpRequest& request) {
                       return request.method() == "CONNECT" ? tunnelReply(true) : httpReply("200 OK", {}, "in");
                     },
                     &own};
};

}  // namespace

TEST_F(CloudTrust, ServerOfTheConfiguredStoreIsTrusted) {
  EXPECT_EQ(outcome({store(own.certificateFile)}), "in");
  EXPECT_THAT(outcome({store(foreign.certificateFile)}), HasSubstr("(60)"));
}

TEST_F(CloudTrust, StoreThatIsNotThereFailsTheRequest) {
  EXPECT_THAT(outcome({store("/nowhere/bundle.pem")}), HasSubstr("(77)"));
}

TEST_F(CloudTrust, SkippedVerificationEndsWithTheHandOut) {
  EXPECT_EQ(outcome({skip()}), "in");
  EXPECT_THAT(outcome({store(foreign.certificateFile)}), HasSubstr("(60)")) << "the same connection, checked again";
  EXPECT_EQ(outcome({skip()}), "in");
  EXPECT_EQ(access.connections.size(), 1U);
}

TEST_F(CloudTrust, ServerOfAnotherNameIsNotTrustedAfterASkippedVerification) {
  testsupport::CertificateOptions named;
  named.name = "other.example.test";
  const testsupport::Certificate other = testsupport::makeCertificate(folder.path(), "other", named);
  HttpServer proxy{[](const HttpRequest& request) {
                     return request.method() == "CONNECT" ? tunnelReply(true) : httpReply("200 OK", {}, "in");
                   },
                   &other};
  access.pool.setProxy(proxyInfo(proxy.address()));
  EXPECT_EQ(outcome({skip()}), "in");
  EXPECT_THAT(outcome({store(other.certificateFile)}), HasSubstr("(60)")) << "the name is checked again";
  EXPECT_EQ(access.connections.size(), 1U);
}

TEST_F(CloudTrust, SecondCallDoesNotChangeTheTrust) {
  PlainClient client;
  {
    const SettingsScope settings{store(own.certificateFile)};
    client.getCurl("alice", "login");
  }
  const SettingsScope settings{store(foreign.certificateFile)};
  client.getCurl("alice", "login");
  EXPECT_THAT(client.connection()->perform(URL, "", 0), Pair(200, "in"));
}
