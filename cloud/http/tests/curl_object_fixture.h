// A CurlObject's surroundings without a domain: a credential source of the test's own and a directory of which nobody
// knows an account.
#pragma once

#include <gmock/gmock.h>

#include <set>
#include <string>

#include "cloud/include/curl_object.h"
#include "testsupport/empty_directory.h"
#include "testsupport/failure_of.h"
#include "testsupport/fake_credential_source.h"

using testsupport::EmptyDirectory;

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

// What the statement throws: "CLASS RC TEXT".
template <class Statement>
std::string curlFailure(Statement statement) {
  return testsupport::failureOf(statement);
}
