// The lab from inside: what it tells of itself, and its control command.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "testsupport/process.h"

namespace testsupport {

// A variable of the environment, empty when it is not there.
inline std::string env(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

// What "lab ctl ARGS..." says, e.g. of the platform simulator: labAsk({"platform", "surprises"}).
inline std::string labAsk(const std::vector<std::string>& arguments) {
  std::vector<std::string> command{env("FERRO_LAB_TOOL"), "ctl"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const auto result = run(command);
  EXPECT_EQ(result.status, 0) << result.out << result.err;
  return result.out;
}

// "lab ctl ARGS...": returns when it is done; a command that fails ends the test.
inline void labControl(const std::vector<std::string>& arguments) {
  std::vector<std::string> command{env("FERRO_LAB_TOOL"), "ctl"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const auto result = run(command);
  ASSERT_EQ(result.status, 0) << result.out << result.err;
}

}  // namespace testsupport
