// A client of the platform that judges nothing.
#pragma once

#include "cloud/include/cloud_object.h"
#include "cloud/include/curl_object.h"

class PlainClient : public CloudBase {
 public:
  explicit PlainClient(const std::string& url = "https://tenant.example.test/") : CloudBase(url) {}
  int processResult() override { return httpCode == 200 ? 1 : 0; }

  CurlObject* connection() const { return curl; }
  std::string& store() { return certStore; }
};
