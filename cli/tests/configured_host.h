// A private host with a configuration of the test's own and a log file that the test reads.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "base/include/logger.h"
#include "base/include/properties.h"
#include "testsupport/log_capture.h"
#include "testsupport/private_host.h"
#include "testsupport/temp_folder.h"

class ConfiguredHost : public testing::Test {
 protected:
  void SetUp() override {
    testsupport::cleanPrivateHost();
    configure();
  }
  void TearDown() override { testsupport::cleanPrivateHost(); }

  // Writes the configuration anew, with debug records in the log file, and puts it in force.
  void configure(const std::string& lines = {}, const std::string& level = "DEBUG") {
    std::filesystem::remove(LOG);
    testsupport::writeFile("/etc/morvand/morvand.conf", "log: " + level + "\nlogging.file: " + LOG + "\n" + lines);
    lumo::Logger::ReconfigureLevels(lumo::Props(true, false));
  }

  // "LEVEL LOGGER: TEXT" of the records since the last call of configure.
  static std::vector<std::string> records() {
    return testsupport::textsIn(testsupport::exists(LOG) ? testsupport::readFile(LOG) : std::string());
  }

 private:
  static constexpr char LOG[] = "/var/tmp/configured-host.log";
};
