// A CurlObject's surroundings without a domain: a credential source of the test's own and a directory of which nobody
// knows an account.
#pragma once

#include <gmock/gmock.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "basalt/directory.h"
#include "cloud/include/curl_object.h"
#include "testsupport/fake_credential_source.h"

// Every domain has a server, and no server an object.
class EmptyDirectory : public DirectoryConnector {
 public:
  EmptyDirectory() { setInstance(this); }
  ~EmptyDirectory() override { setInstance(nullptr); }
  EmptyDirectory(const EmptyDirectory&) = delete;
  EmptyDirectory& operator=(const EmptyDirectory&) = delete;

  std::unique_ptr<DirectoryConnection> open(const Target&) override {
    ++opened;
    return std::make_unique<Connection>();
  }
  std::string site(const std::string&) override { return {}; }

  std::atomic<int> opened{0};  // connections, by any thread

 private:
  class Connection : public DirectoryConnection {
   public:
    std::vector<ADObjectPtr> search(const DirectorySearch&) override { return {}; }
    ADObjectPtr rootDse() override { return ADObjectPtr(new lumo::ADObject("")); }
  };
};

class CurlObjectTest : public testing::Test {
 protected:
  testsupport::FakeCredentialSource source;
  EmptyDirectory directory;

  // A new object's options in the ledger.
  const std::set<int> defaults = {CURLOPT_TIMEOUT, CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST, CURLOPT_NOSIGNAL,
                                  CURLOPT_COOKIEFILE};
  std::set<int> defaultsAnd(std::set<int> more) const {
    more.insert(defaults.begin(), defaults.end());
    return more;
  }
};

// What the statement throws as CurlException: "CLASS RC TEXT".
template <class Statement>
std::string curlFailure(Statement statement) {
  try {
    statement();
  } catch (const lumo::CurlException& failure) {
    return std::string(failure.className()) + " " + std::to_string(failure.rc()) + " " + failure.what();
  }
  return "nothing thrown";
}
