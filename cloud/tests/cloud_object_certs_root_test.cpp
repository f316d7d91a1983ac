#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "cloud/cloud_object_certs.h"
#include "testsupport/temp_folder.h"

namespace {

const std::vector<std::string> BUNDLES = {
    "/etc/ssl/certs/ca-certificates.crt",
    "/etc/pki/tls/certs/ca-bundle.crt",
    "/usr/share/ssl/certs/ca-bundle.crt",
    "/usr/local/share/certs/ca-root-nss.crt",
    "/etc/ssl/cert.pem",
    "/etc/certs/ca-certificates.crt",
};

// /etc is the private host's own; below /usr nothing is written.
bool inPrivateFolder(const std::string& path) { return path.compare(0, 5, "/etc/") == 0; }

void put(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  testsupport::writeFile(path, content);
}

class CertBundle : public testing::Test {
 protected:
  CertBundle() {
    for (const std::string& path : BUNDLES) {
      if (inPrivateFolder(path)) ::unlink(path.c_str());
      if (testsupport::exists(path)) ADD_FAILURE() << path << " is there on this machine";
    }
  }
};

}  // namespace

TEST_F(CertBundle, NoneOfTheSixGivesTheEmptyString) { EXPECT_EQ(findCertBundle(), ""); }

TEST_F(CertBundle, FirstOfTheTableIsTakenFirst) {
  for (auto path = BUNDLES.rbegin(); path != BUNDLES.rend(); ++path) {
    if (!inPrivateFolder(*path)) continue;
    put(*path, "x");
    EXPECT_EQ(findCertBundle(), *path);
  }
}

TEST_F(CertBundle, OnlyTheFifthIsFound) {
  put("/etc/ssl/cert.pem", "certificates");
  EXPECT_EQ(findCertBundle(), "/etc/ssl/cert.pem");
}

TEST_F(CertBundle, FileOfNoLengthIsPassedOver) {
  put("/etc/ssl/certs/ca-certificates.crt", "");
  put("/etc/pki/tls/certs/ca-bundle.crt", "x");
  EXPECT_EQ(findCertBundle(), "/etc/pki/tls/certs/ca-bundle.crt");
}

TEST_F(CertBundle, DanglingLinkIsPassedOverAndALinkIsFollowed) {
  std::filesystem::create_symlink("/etc/nowhere", BUNDLES[0]);
  put("/etc/certs/real.crt", "x");
  std::filesystem::create_symlink("/etc/certs/real.crt", "/etc/ssl/cert.pem");
  EXPECT_EQ(findCertBundle(), "/etc/ssl/cert.pem");
}
