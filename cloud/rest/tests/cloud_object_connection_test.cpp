#include <gmock/gmock.h>

#include <functional>

#include "base/include/parameter_names.h"
#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/http/tests/curl_object_fixture.h"
#include "cloud/http/tests/curl_words.h"
#include "cloud/rest/tests/cloud_object_client.h"
#include "testsupport/log_capture.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class CloudConnection : public CurlObjectTest {
 protected:
  std::vector<std::string> records() const { return recordsOf(log.texts(), "cloud.object"); }

  CloudCurlPoolAccess access;
  testsupport::LogCapture log;
};

}  // namespace

TEST_F(CloudConnection, ConfiguredStoreIsTrustedWithoutALook) {
  const SettingsScope settings{{lumo::PN::FERROD_CLOUD_CERT_STORE, "/nowhere/bundle.pem"}};
  PlainClient client;
  client.getCurl("alice", "login");
  ASSERT_NE(client.connection(), nullptr);
  EXPECT_EQ(client.store(), "/nowhere/bundle.pem");
  EXPECT_EQ(client.connection()->recordedOptions(), defaultsAnd({CURLOPT_CAINFO, CURLOPT_HTTPPROXYTUNNEL}));
  EXPECT_EQ(access.connections.at(client.connection()).userName, "alice");
  EXPECT_EQ(access.connections.at(client.connection()).programName, "login");
  EXPECT_EQ(records().back(), "DEBUG Will use cert store : '/nowhere/bundle.pem' for cloud cert verification.");
}

TEST_F(CloudConnection, SkippedVerificationLooksForNoStore) {
  const SettingsScope settings{{lumo::PN::FERROD_CLOUD_SKIP_CERT_VERIFICATION, "true"},
                               {lumo::PN::FERROD_CLOUD_CERT_STORE, "/nowhere/bundle.pem"}};
  PlainClient client;
  client.store() = "of before";
  client.getCurl("alice", "login");
  EXPECT_EQ(client.store(), "of before");
  EXPECT_EQ(client.connection()->recordedOptions(), defaultsAnd({CURLOPT_HTTPPROXYTUNNEL}));
  EXPECT_THAT(records(), Not(Contains(HasSubstr("cert store"))));
}

TEST_F(CloudConnection, ClientHoldsOneConnection) {
  PlainClient client;
  {
    const SettingsScope settings{{lumo::PN::FERROD_CLOUD_SKIP_CERT_VERIFICATION, "true"}};
    client.getCurl("alice", "login");
  }
  CurlObject* const first = client.connection();
  const std::set<int> before = first->recordedOptions();
  const std::size_t recorded = records().size();
  const SettingsScope settings{{lumo::PN::FERROD_CLOUD_CERT_STORE, "/nowhere/bundle.pem"}};
  client.getCurl("bob", "sudo");
  EXPECT_EQ(client.connection(), first);
  EXPECT_EQ(first->recordedOptions(), before);
  EXPECT_EQ(access.connections.size(), 1U);
  EXPECT_EQ(access.connections.at(first).userName, "alice");
  EXPECT_EQ(records().size(), recorded);
  EXPECT_EQ(client.store(), "");
}

TEST_F(CloudConnection, ConnectionIsGivenBackOnceAndWithTheClient) {
  {
    PlainClient client;
    client.releaseCurl();
    client.getCurl("alice", "login");
    EXPECT_EQ(access.occupiedCount, 1U);
    client.releaseCurl();
    EXPECT_EQ(client.connection(), nullptr);
    EXPECT_EQ(access.occupiedCount, 0U);
    client.releaseCurl();
    EXPECT_EQ(access.occupiedCount, 0U);
    client.getCurl("bob", "login");
    EXPECT_EQ(access.occupiedCount, 1U);
  }
  EXPECT_EQ(access.occupiedCount, 0U);
  EXPECT_EQ(access.connections.size(), 1U);
}

TEST_F(CloudConnection, PoolWithoutAConnectionIsToldTheCaller) {
  access.maxConnections = 1;
  access.occupiedTimeout = 900;
  PlainClient first;
  first.getCurl("alice", "login");
  PlainClient second;
  EXPECT_EQ(failureOf([&] { second.getCurl("bob", "login"); }),
            "CloudConnException -1 Failed to get CURL handle for connection: connections exceeded.");
  EXPECT_EQ(second.connection(), nullptr);
}

TEST_F(CloudConnection, ConnectionWithoutItsTrustGoesBack) {
  PlainClient client;
  {
    // More than libcurl takes for one text.
    const SettingsScope settings{{lumo::PN::FERROD_CLOUD_CERT_STORE, std::string(8000001, 'x')}};
    EXPECT_EQ(failureOf([&] { client.getCurl("alice", "login"); }),
              "CurlException -1 " + curltest::setOptFailed(CURLE_BAD_FUNCTION_ARGUMENT));
    EXPECT_EQ(client.connection(), nullptr);
    EXPECT_EQ(access.occupiedCount, 0U);
  }
  client.getCurl("alice", "login");
  EXPECT_NE(client.connection(), nullptr);
}

TEST_F(CloudConnection, CallsWithoutAConnectionSayWhatToDo) {
  PlainClient client;
  const std::function<void()> calls[] = {[&] { client.get("https://tenant.example.test/"); },
                                         [&] {
                                           client.get("https://tenant.example.test/", {{"a", "b"}});
                                         },
                                         [&] { client.post("https://tenant.example.test/", "{}"); },
                                         [&] {
                                           client.post("https://tenant.example.test/", {{"a", "b"}}, "{}");
                                         },
                                         [&] { client.setVerbose(); },
                                         [&] { client.setDebugTrace(); }};
  for (const auto& call : calls) {
    EXPECT_EQ(failureOf(call),
              "CloudException -1 The client holds no connection: take one with getCurl before the first call");
  }
  EXPECT_EQ(client.getHttpCode(), 0);
}

TEST_F(CloudConnection, ProxyIsThePoolsFromThenOn) {
  CloudBase::setProxy(proxyInfo("proxy.example.test:8080", "basic", "bob", "pw"));
  EXPECT_EQ(access.proxyServer, "proxy.example.test:8080");
  EXPECT_EQ(access.proxyPassword, lumo::Shredder2("pw"));
}

TEST_F(CloudConnection, ResetOfADirectConnectionChangesNothing) {
  const SettingsScope settings{{lumo::PN::CLOUD_DIRECT_CONNECTION, "true"}};
  access.pool.setProxy(proxyInfo("proxy.example.test:8080"));
  PlainClient client;
  const std::size_t before = records().size();
  client.resetProxy();
  EXPECT_EQ(records().size(), before + 1);
  EXPECT_EQ(records().back(), "DEBUG Reset cloud web proxy...");
  EXPECT_EQ(access.proxyServer, "proxy.example.test:8080");
}

TEST_F(CloudConnection, ResetThatFailsLeavesThePoolsProxy) {
  access.pool.setProxy(proxyInfo("proxy.example.test:8080"));
  PlainClient client;
  EXPECT_EQ(failureOf([&] { client.resetProxy(); }), "CloudConnectorException -1 Can not get ADAgent");
  EXPECT_EQ(access.proxyServer, "proxy.example.test:8080");
}
