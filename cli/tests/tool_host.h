// The host of the tool's root tests, and how outcomes of a run are compared: whole.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "testsupport/keytab.h"
#include "testsupport/private_host.h"
#include "testsupport/process.h"
#include "testsupport/temp_folder.h"

namespace tooltest {

constexpr char CONFIGURATION[] = "/etc/morvand/morvand.conf";
constexpr char CREDENTIAL[] = "/var/morvand/httpproxy.cred";
constexpr char KEYTAB[] = "/etc/krb5.keytab";
constexpr char LOG[] = "/var/morvand/test.log";
constexpr char HINT[] = "Please run with -h option to get the help page.\n\n";
constexpr char SET_DONE[] =
    "Set the HTTP Proxy configuration successfully.\n"
    "You may want to run ferrokick to make the new configuration effective.\n";

using Arguments = std::vector<std::string>;

struct Outcome {
  int status;
  std::string out;
  std::string err;
  bool operator==(const Outcome& other) const { return status == other.status && out == other.out && err == other.err; }
};
inline std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
  return stream << "status " << outcome.status << "\nout: " << testing::PrintToString(outcome.out)
                << "\nerr: " << testing::PrintToString(outcome.err);
}

inline Outcome tool(const Arguments& arguments, const testsupport::ProcessOptions& options = {}) {
  const auto result = testsupport::runTool(arguments, options);
  EXPECT_FALSE(result.timedOut);
  return {result.status, result.out, result.err};
}

inline std::string joined(const Arguments& arguments) {
  std::string line;
  for (const auto& word : arguments) line += " '" + word + "'";
  return line;
}

// What comes out for a refusal: the text, then the hint.
inline Outcome refused(const std::string& text) { return {7, "", text + "\n\n" + HINT}; }
// What comes out for a result code with this text.
inline Outcome error(int status, const std::string& text) { return {status, "", "ERROR: " + text + ".\n\n"}; }
// What the C library's parser says before a refusal.
inline Outcome badOption(const std::string& said, const std::string& text = "Wrong option.") {
  return {7, "", testsupport::toolPath() + ": " + said + "\n" + text + "\n\n" + HINT};
}

inline void configure(const std::string& text) { testsupport::writeFile(CONFIGURATION, text); }
// With records of every level in LOG, which begins anew.
inline void configureLog(const std::string& text = {}) {
  std::filesystem::remove(LOG);
  configure("log: TRACE\nlogging.file: " + std::string(LOG) + "\n" + text);
}
// "LEVEL TEXT" of the tool's own records in LOG. Each must end with its place in the sources.
inline std::vector<std::string> allRecords() {
  const std::string logger = " cli.ferrogate: ";
  std::vector<std::string> found;
  std::istringstream lines(testsupport::readFile(LOG));
  for (std::string line; std::getline(lines, line);) {
    const auto name = line.find(logger);
    if (name == std::string::npos) continue;
    const auto level = line.rfind(' ', name - 1) + 1;
    const auto text = name + logger.size();
    const auto place = line.rfind(" [");
    EXPECT_NE(line.find("cli/cli_", place), std::string::npos) << line;
    found.push_back(line.substr(level, name - level) + " " + line.substr(text, place - text));
  }
  return found;
}
// The audit records among them, which come last, or the others.
inline std::vector<std::string> recordsOf(bool audit) {
  std::vector<std::string> found;
  for (const auto& record : allRecords()) {
    if ((record.find(" Audit: ") != std::string::npos) == audit) found.push_back(record);
  }
  return found;
}
inline std::vector<std::string> records() { return recordsOf(false); }
inline std::vector<std::string> audits() { return recordsOf(true); }
inline std::string configuration() { return testsupport::readFile(CONFIGURATION); }

inline void join(int kvno = 3, const std::string& password = "machine-secret") {
  testsupport::writeKeytab(KEYTAB, {{"HOST1$@CORP.EXAMPLE.TEST", kvno, 18, password}});
}

// A joined machine without configuration and credential.
class JoinedHost : public testing::Test {
 protected:
  void SetUp() override {
    testsupport::cleanPrivateHost();
    join();
  }
  void TearDown() override { testsupport::cleanPrivateHost(); }
};

}  // namespace tooltest
