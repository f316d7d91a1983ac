// The search for a bundle where none is configured: files of the private host.
#include <unistd.h>

#include <filesystem>

#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/http/tests/curl_object_fixture.h"
#include "cloud/rest/tests/cloud_object_client.h"
#include "testsupport/log_capture.h"
#include "testsupport/temp_folder.h"

namespace {

constexpr char BUNDLE[] = "/etc/ssl/certs/ca-certificates.crt";

class CloudBundle : public CurlObjectTest {
 protected:
  CloudBundle() {
    for (const char* path :
         {BUNDLE, "/etc/pki/tls/certs/ca-bundle.crt", "/etc/ssl/cert.pem", "/etc/certs/ca-certificates.crt"}) {
      ::unlink(path);
    }
  }
  std::vector<std::string> records() const { return recordsOf(log.texts(), "cloud.object"); }

  CloudCurlPoolAccess access;
  testsupport::LogCapture log;
};

}  // namespace

TEST_F(CloudBundle, BundleOfTheDistributionIsFound) {
  std::filesystem::create_directories("/etc/ssl/certs");
  testsupport::writeFile(BUNDLE, "x");
  PlainClient client;
  client.getCurl("alice", "login");
  EXPECT_EQ(client.store(), BUNDLE);
  EXPECT_EQ(client.connection()->recordedOptions(), defaultsAnd({CURLOPT_CAINFO, CURLOPT_HTTPPROXYTUNNEL}));
  EXPECT_EQ(records().back(), std::string("DEBUG Will use cert store : '") + BUNDLE + "' for cloud cert verification.");
}

TEST_F(CloudBundle, WithoutAnyBundleAWarningIsAllThereIs) {
  PlainClient client;
  client.store() = "of before";
  client.getCurl("alice", "login");
  EXPECT_EQ(client.store(), "");
  EXPECT_EQ(client.connection()->recordedOptions(), defaultsAnd({CURLOPT_HTTPPROXYTUNNEL}))
      << "libcurl's own trust, and verification on";
  EXPECT_EQ(records().back(),
            "ERROR Cloud cert verification is enabled yet no valid cert store found.Cloud connections may fail");
}
