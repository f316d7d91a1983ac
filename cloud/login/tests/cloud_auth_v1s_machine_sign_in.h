// The machine's sign-in: a client between a connector and a platform that answer by script.
#pragma once

#include <algorithm>
#include <string>

#include "cloud/login/tests/cloud_auth_v1s_fixture.h"

namespace v1stest {

class MachineSignInLoopback : public V1STest {
 protected:
  // 1 or 0, and what came out.
  int askConnector(const HttpReply& reply) {
    connector.script({reply});
    otc = "before";
    errorMessage = "before";
    return client->siteCheck(otc, errorMessage);
  }
  std::string siteCheckLine(int status) const {
    return "DEBUG siteCheck: URL = " + connector.url() +
           "iwa/SiteCheck, SPN = HTTP/connector.example.test@EXAMPLE.TEST, httpCode = " + std::to_string(status);
  }
  std::string signInFailure() {
    return failureOf([this] { client->getMachineAuthToken(); });
  }
  bool hasOption(int option) const { return client->curl->recordedOptions().count(option) != 0; }
  Texts fatal() {
    Texts some = records();
    some.erase(std::remove_if(some.begin(), some.end(), [](auto& text) { return text.compare(0, 5, "FATAL") != 0; }),
               some.end());
    return some;
  }

  std::string otc;
  std::string errorMessage;
};

}  // namespace v1stest
