// What a connection trusts, on a host whose libcurl has a bundle and a folder built in that trust everybody here.
#include <filesystem>

#include "cloud/http/cloud_object_certs.h"
#include "cloud/http/tests/connector_trust.h"
#include "cloud/http/tests/curl_object_fixture.h"
#include "testsupport/private_host.h"

using testing::Pair;
using testsupport::Certificate;
using testsupport::HttpReply;
using testsupport::httpReply;
using testsupport::HttpRequest;
using testsupport::HttpServer;

namespace {

constexpr char SECURE_URL[] = "https://127.0.0.1/";

class CurlObjectTrust : public CurlObjectTest {
 protected:
  // /etc is the private host's own.
  void SetUp() override {
    const CurlObject any;
    const char* bundle = nullptr;
    const char* folderName = nullptr;
    curl_easy_getinfo(any.handle, CURLINFO_CAINFO, &bundle);
    curl_easy_getinfo(any.handle, CURLINFO_CAPATH, &folderName);
    ASSERT_TRUE(bundle != nullptr && folderName != nullptr) << "libcurl has nothing built in: nothing to test here";
    std::filesystem::create_directories(std::filesystem::path(bundle).parent_path());
    std::filesystem::remove(bundle);
    testsupport::writeFile(bundle, testsupport::readFile(certificate.certificateFile));
    negotiatetest::trustIn(folderName, certificate);
    negotiatetest::trustIn(folder.file("good"), certificate);
    negotiatetest::trustIn(folder.file("other"), another);
    throughProxy(object);
  }
  void TearDown() override { testsupport::cleanPrivateHost(); }

  void throughProxy(CurlObject& curl) { curl.setProxy(server.address(), "", "", lumo::Shredder2()); }
  // "trusted", "refused" or what else happened, of a server behind a proxy that is spoken to without TLS.
  std::string tried(CurlObject& curl) {
    try {
      return curl.perform(SECURE_URL, "", 0).second;
    } catch (const lumo::CurlException& failure) {
      const std::string refusal = curl_easy_strerror(CURLE_PEER_FAILED_VERIFICATION);
      return std::string(failure.what()).find(refusal) != std::string::npos ? "refused" : failure.what();
    }
  }
  std::string tried() { return tried(object); }

  const testsupport::TempFolder folder;
  const Certificate certificate = negotiatetest::certificateFor(folder, "server");
  const Certificate another = negotiatetest::certificateFor(folder, "another");
  HttpServer server{[](const HttpRequest& request) {
                      return request.tls ? httpReply("200 OK", {}, "trusted") : testsupport::tunnelReply(true);
                    },
                    &certificate};
  CurlObject object;
};

}  // namespace

TEST_F(CurlObjectTrust, NothingThatIsBuiltIntoLibcurlIsTrusted) { EXPECT_EQ(tried(), "refused"); }

TEST_F(CurlObjectTrust, BundleOrFolderIsAllThatIsTrusted) {
  object.setOpt(CURLOPT_CAINFO, another.certificateFile);
  EXPECT_EQ(tried(), "refused");
  object.setOpt(CURLOPT_CAINFO, certificate.certificateFile);
  EXPECT_EQ(tried(), "trusted");
  CurlObject byFolder;
  throughProxy(byFolder);
  byFolder.setOpt(CURLOPT_CAPATH, folder.file("other"));
  EXPECT_EQ(tried(byFolder), "refused");
  byFolder.setOpt(CURLOPT_CAPATH, folder.file("good"));
  EXPECT_EQ(tried(byFolder), "trusted");
}

TEST_F(CurlObjectTrust, BundleTakesThePlaceOfAFolderAndTheReverse) {
  object.setOpt(CURLOPT_CAPATH, folder.file("good"));
  EXPECT_EQ(object.recordedOptions(), defaultsAnd({CURLOPT_PROXY, CURLOPT_HTTPPROXYTUNNEL, CURLOPT_CAPATH}));
  object.setOpt(CURLOPT_CAINFO, another.certificateFile);
  EXPECT_EQ(object.recordedOptions(), defaultsAnd({CURLOPT_PROXY, CURLOPT_HTTPPROXYTUNNEL, CURLOPT_CAINFO}));
  EXPECT_EQ(tried(), "refused");
  object.setOpt(CURLOPT_CAINFO, certificate.certificateFile);
  object.setOpt(CURLOPT_CAPATH, folder.file("other"));
  EXPECT_EQ(object.recordedOptions(),
            defaultsAnd({CURLOPT_PROXY, CURLOPT_HTTPPROXYTUNNEL, CURLOPT_CAPATH, CURLOPT_POST, CURLOPT_HEADERDATA,
                         CURLOPT_HEADERFUNCTION, CURLOPT_URL, CURLOPT_READFUNCTION, CURLOPT_WRITEFUNCTION,
                         CURLOPT_READDATA, CURLOPT_WRITEDATA, CURLOPT_HTTPHEADER}));
  EXPECT_EQ(tried(), "refused");
}

TEST_F(CurlObjectTrust, ClearedSourceLeavesNothing) {
  object.setOpt(CURLOPT_CAINFO, certificate.certificateFile);
  EXPECT_EQ(tried(), "trusted");
  object.clearOpt(CURLOPT_CAINFO);
  EXPECT_EQ(tried(), "refused") << "nor is the connection of before used";
  object.setOpt(CURLOPT_CAPATH, folder.file("good"));
  EXPECT_EQ(tried(), "trusted");
  object.clearOpt(CURLOPT_CAPATH);
  EXPECT_EQ(tried(), "refused");
}

// After a failed transfer the object works on a copy of its handle.
TEST_F(CurlObjectTrust, IsTheSameTheFirstTimeAndTheHundredth) {
  object.setOpt(CURLOPT_CAINFO, another.certificateFile);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(tried(), "refused") << i;
  object.setOpt(CURLOPT_CAINFO, certificate.certificateFile);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(tried(), "trusted") << i;
}

TEST_F(CurlObjectTrust, BundleIsReadForEachConnection) {
  const std::string bundle = folder.file("bundle.pem");
  std::filesystem::copy_file(certificate.certificateFile, bundle);
  // The server ends each connection, so that none is used again.
  HttpServer once(
      [](const HttpRequest& request) {
        if (!request.tls) return testsupport::tunnelReply(true);
        HttpReply reply = httpReply("200 OK", {"Connection: close"}, "trusted");
        reply.then = HttpReply::Close;
        return reply;
      },
      &certificate);
  object.setProxy(once.address(), "", "", lumo::Shredder2());
  object.setOpt(CURLOPT_CAINFO, bundle);
  // A resumed session of TLS shows no certificate.
  object.setOpt(CURLOPT_SSL_SESSIONID_CACHE, 0);
  EXPECT_EQ(tried(), "trusted");
  testsupport::writeFile(bundle, testsupport::readFile(another.certificateFile));
  EXPECT_EQ(tried(), "refused");
}

TEST_F(CurlObjectTrust, ProxyWithTlsIsTrustedLikeTheServer) {
  HttpServer secure(
      [](const HttpRequest& request) {
        return request.method() == "CONNECT" ? testsupport::tunnelReply() : httpReply("200 OK", {}, "trusted");
      },
      &certificate, "127.0.0.1", 0, HttpServer::FromTheStart);
  const auto triedAtProxy = [&](const Trust& trust) {
    CurlObject curl;
    curl.setProxy("https://" + secure.address(), "", "", lumo::Shredder2());
    setTrust(curl, trust);
    try {
      return curl.perform("http://server.example.test/", "", 0).second;
    } catch (const lumo::CurlException& failure) {
      const std::string refusal = curl_easy_strerror(CURLE_PEER_FAILED_VERIFICATION);
      return std::string(failure.what()).find(refusal) != std::string::npos ? "refused" : std::string(failure.what());
    }
  };
  EXPECT_EQ(triedAtProxy({}), "refused");
  EXPECT_EQ(triedAtProxy({true, another.certificateFile, {}}), "refused");
  EXPECT_EQ(triedAtProxy({true, {}, folder.file("other")}), "refused");
  EXPECT_EQ(secure.requests().size(), 0U) << "nothing is sent to a proxy that is not trusted";
  EXPECT_EQ(triedAtProxy({true, certificate.certificateFile, {}}), "trusted");
  EXPECT_EQ(triedAtProxy({true, {}, folder.file("good")}), "trusted");
  EXPECT_EQ(triedAtProxy({false, another.certificateFile, {}}), "trusted") << "nobody is verified";
}

TEST_F(CurlObjectTrust, IsSetAsAWhole) {
  throughProxy(object);
  setTrust(object, {true, certificate.certificateFile, folder.file("other")});
  EXPECT_EQ(tried(), "trusted") << "the bundle comes first";
  setTrust(object, {true, {}, folder.file("other")});
  EXPECT_EQ(tried(), "refused");
  setTrust(object, {false, {}, {}});
  EXPECT_EQ(tried(), "trusted");
  setTrust(object, {true, {}, {}});
  EXPECT_EQ(tried(), "refused");
  EXPECT_EQ(object.recordedOptions().count(CURLOPT_CAPATH), 0U);
  setTrust(object, {true, {}, folder.file("good")});
  EXPECT_EQ(tried(), "trusted");
}
