// --test of a platform with TLS: whom it trusts.
#include <unistd.h>

#include "cli/tests/tested_connection.h"

namespace {

using namespace tooltest;
using testsupport::CertificateOptions;
using testsupport::HttpServer;

constexpr char STORE[] = "/var/morvand/store.pem";
const char* const KNOWN_STORES[] = {"/etc/ssl/certs/ca-certificates.crt", "/etc/ssl/cert.pem"};

CertificateOptions named(const std::string& name) {
  CertificateOptions options;
  options.name = name;
  return options;
}

// TLS at the end of the tunnel.
class TlsConnection : public Connection {
 protected:
  void SetUp() override {
    Connection::SetUp();
    authority = testsupport::makeCertificate(folder.path(), "authority", named("Test Authority"));
    testsupport::writeFile(STORE, testsupport::readFile(authority.certificateFile));
  }

  testsupport::Certificate certificate(CertificateOptions options) {
    options.issuer = &authority;
    return testsupport::makeCertificate(folder.path(), "server", options);
  }
  static void trust(const std::string& more = {}) {
    configure("ferrod.cloud.cert.store: " + std::string(STORE) + "\n" + more);
  }
  static void takeKnownStoresAway() {
    for (const char* store : KNOWN_STORES) unlink(store);
  }

  testsupport::TempFolder folder;
  testsupport::Certificate authority;
};

constexpr char URL[] = "https://platform.example.test/";

TEST_F(TlsConnection, GoodCertificateOfAKnownAuthorityPasses) {
  const auto good = certificate(named("platform.example.test"));
  const HttpServer proxy(open(OK, true), &good);
  trust();
  EXPECT_EQ(tool({"-T", "-c", URL, "-s", proxy.address()}), passed(URL, proxy.address()));
  ASSERT_EQ(proxy.requests().size(), 2U);
  EXPECT_TRUE(proxy.requests()[1].tls);
}

TEST_F(TlsConnection, BadCertificatesFailUnlessTheCheckIsSwitchedOff) {
  struct Row {
    const char* what;
    testsupport::Certificate certificate;
  };
  CertificateOptions expired = named("platform.example.test");
  expired.startsIn = -172800;
  expired.endsIn = -86400;
  CertificateOptions early = named("platform.example.test");
  early.startsIn = 86400;
  early.endsIn = 172800;
  expired.issuer = early.issuer = &authority;
  CertificateOptions wrongName = named("other.example.test");
  wrongName.issuer = &authority;
  const auto make = [&](const char* name, const CertificateOptions& options) {
    return testsupport::makeCertificate(folder.path(), name, options);
  };
  const Row rows[] = {{"self-signed", make("self", named("platform.example.test"))},
                      {"expired", make("expired", expired)},
                      {"not yet valid", make("early", early)},
                      {"for another name", make("wrong", wrongName)}};
  for (const auto& row : rows) {
    const HttpServer proxy(open(OK, true), &row.certificate);
    trust();
    EXPECT_EQ(tool({"-T", "-c", URL, "-s", proxy.address()}), failed(URL, proxy.address())) << row.what;
    EXPECT_EQ(proxy.requests().size(), 1U) << row.what;
    trust("ferrod.cloud.skip.cert.verification: yes\n");
    EXPECT_EQ(tool({"-T", "-c", URL, "-s", proxy.address()}), passed(URL, proxy.address())) << row.what;
  }
}

TEST_F(TlsConnection, StoreIsNamedOnlyInVerboseMode) {
  const auto good = certificate(named("platform.example.test"));
  const HttpServer proxy(open(OK, true), &good);
  trust();
  const Outcome verbose = tool({"-T", "-V", "-c", URL, "-s", proxy.address()});
  EXPECT_EQ(verbose.status, 0);
  EXPECT_EQ(verbose.err.rfind(
                announced(URL, proxy.address()) + "Using cert store: " + STORE + "\n\nCurl Debug Info...\n*", 0),
            0U)
      << verbose;
  trust("ferrod.cloud.skip.cert.verification: true\n");
  const Outcome skipped = tool({"-T", "-V", "-c", URL, "-s", proxy.address()});
  EXPECT_EQ(skipped.err.rfind(announced(URL, proxy.address()) + "Skip cert verfication.\n\nCurl Debug Info...\n*", 0),
            0U)
      << skipped;
}

TEST_F(TlsConnection, FirstKnownBundleServesWhereNoStoreIsConfigured) {
  const auto good = certificate(named("platform.example.test"));
  const HttpServer proxy(open(OK, true), &good);
  takeKnownStoresAway();
  testsupport::writeFile(KNOWN_STORES[0], "");
  testsupport::writeFile(KNOWN_STORES[1], testsupport::readFile(STORE));
  const Outcome outcome = tool({"-T", "-V", "-c", URL, "-s", proxy.address()});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_NE(outcome.err.find("Using cert store: /etc/ssl/cert.pem\n"), std::string::npos) << outcome;
}

TEST_F(TlsConnection, MissingStoreIsWarnedOfForHttpsAlone) {
  const auto good = certificate(named("platform.example.test"));
  const HttpServer proxy(open(OK, true), &good);
  takeKnownStoresAway();
  const std::string warning = "No valid cert store found, OPX connection might fail!\n";
  for (const std::string url : {"https://platform.example.test/", "HTTPS://platform.example.test/"}) {
    EXPECT_EQ(tool({"-T", "-c", url, "-s", proxy.address()}), failed(url, proxy.address(), warning)) << url;
  }
  const HttpServer plain(open(OK));
  EXPECT_EQ(tool({"-T", "-c", "http://h/", "-s", plain.address()}), passed("http://h/", plain.address()));
}

TEST_F(TlsConnection, StoreThatIsNotThereFailsTheTest) {
  const auto good = certificate(named("platform.example.test"));
  const HttpServer proxy(open(OK, true), &good);
  configure("ferrod.cloud.cert.store: /nowhere/store.pem\n");
  EXPECT_EQ(tool({"-T", "-c", URL, "-s", proxy.address()}), failed(URL, proxy.address()));
  testsupport::writeFile(STORE, "rubbish");
  trust();
  EXPECT_EQ(tool({"-T", "-c", URL, "-s", proxy.address()}), failed(URL, proxy.address()));
}

}  // namespace
