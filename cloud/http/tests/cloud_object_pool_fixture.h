// A pool whose clock stands still at Greenwich, and its log.
#pragma once

#include <gmock/gmock.h>

#include <cstdlib>
#include <ctime>

#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/http/tests/curl_object_fixture.h"
#include "testsupport/log_capture.h"
#include "testsupport/manual_clock.h"

class CurlPoolTest : public CurlObjectTest {
 protected:
  CurlPoolTest() {
    setenv("TZ", "UTC0", 1);
    tzset();
  }
  ~CurlPoolTest() override {
    unsetenv("TZ");
    tzset();
  }

  // A pool whose limits are set already, so that they leave no records.
  void limit(std::uint64_t connections, std::int32_t time = 900) {
    access.maxConnections = connections;
    access.occupiedTimeout = time;
  }
  std::vector<std::string> records() const { return recordsOf(log.texts(), "cloud.object"); }
  // Several that are out at the same time.
  std::vector<CurlObject*> take(int count) {
    std::vector<CurlObject*> all;
    for (int i = 0; i < count; ++i) all.push_back(access.pool.getCurl("user" + std::to_string(i), "program"));
    return all;
  }
  time_t now() { return std::chrono::system_clock::to_time_t(clock.now()); }

  testsupport::ManualClock clock;
  CloudCurlPoolAccess access;
  testsupport::LogCapture log;
};
