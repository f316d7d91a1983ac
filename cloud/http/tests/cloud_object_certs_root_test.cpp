#include <gtest/gtest.h>

#include <filesystem>

#include "cloud/http/cloud_object_certs.h"
#include "testsupport/private_host.h"
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

void put(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  testsupport::writeFile(path, content);
}

class CertBundle : public testing::Test {
 protected:
  // /etc is the private host's own; so is for a while what lies below /usr.
  void SetUp() override {
    for (const char* folder : {"/usr/share", "/usr/local/share"}) testsupport::mountSmall(folder, 64);
    for (const std::string& path : BUNDLES) std::filesystem::remove_all(path);
  }
  void TearDown() override { testsupport::cleanPrivateHost(); }
};

}  // namespace

TEST_F(CertBundle, NoneOfTheSixGivesTheEmptyString) { EXPECT_EQ(findCertBundle(), ""); }

TEST_F(CertBundle, FirstOfTheTableIsTakenFirst) {
  for (auto path = BUNDLES.rbegin(); path != BUNDLES.rend(); ++path) {
    put(*path, "x");
    EXPECT_EQ(findCertBundle(), *path);
  }
}

TEST_F(CertBundle, EachOfTheSixIsFoundAlone) {
  for (const std::string& path : BUNDLES) {
    put(path, "x");
    EXPECT_EQ(findCertBundle(), path);
    std::filesystem::remove(path);
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

TEST_F(CertBundle, WhatIsUnderAPathIsNotLookedAt) {
  std::filesystem::create_directories(BUNDLES[2]);
  put(BUNDLES[3], "x");
  EXPECT_EQ(findCertBundle(), BUNDLES[2]);
}
