// Running programs in tests and looking at what they did.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace testsupport {

struct ProcessResult {
  int status = -1;  // exit status, or 128 + signal
  std::string out;  // standard output, or all of the terminal with `terminal`
  std::string err;  // standard error
  bool timedOut = false;
};

struct ProcessOptions {
  std::string input;                               // standard input, closed behind it
  std::map<std::string, std::string> environment;  // added to the test's own
  bool terminal = false;                           // a pseudo-terminal as controlling terminal and as all three streams
  std::string typeAfter;                           // with `terminal`: wait for this text, then type `input`
  uid_t uid = 0;                                   // run as this user where it is not 0
  std::chrono::seconds limit{60};                  // killed after that
};

// Runs argv[0] with the arguments and waits.
ProcessResult run(const std::vector<std::string>& argv, const ProcessOptions& options = {});

// The same for a function, in a process of its own forked off this one; its result is the exit status.
ProcessResult runInChild(const std::function<int()>& body, const ProcessOptions& options = {});

// Path of the `ferrogate` executable: that of this build, or where the variable FERRO_TEST_TOOL names another, that
// one.
std::string toolPath();

// Runs the built tool with these arguments.
ProcessResult runTool(const std::vector<std::string>& arguments, const ProcessOptions& options = {});

}  // namespace testsupport
