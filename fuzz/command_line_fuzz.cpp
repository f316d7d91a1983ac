// The command line: the first byte chooses the command, the rest is its arguments, a zero byte between two of them.
// What the parsers let through must keep the rules that the handlers rely on, and no password may stay in the
// arguments.
#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli/cli_common.h"
#include "cli/cli_ferrogate.h"
#include "cloud/include/curl_object.h"

namespace {

std::vector<std::string> wordsFrom(const std::string& input) {
  std::vector<std::string> words{"ferrogate"};
  for (size_t at = 0; at <= input.size() && words.size() < 64;) {
    const size_t end = std::min(input.find('\0', at), input.size());
    words.push_back(input.substr(at, end - at));
    at = end + 1;
  }
  return words;
}

// A user name that is typed as the machine's marker passes the rules of --machine by, as the parsers judge the option.
void requireRules(int letter, const CommandOptions& record, bool markerTyped) {
  const bool machine = record.username == MACHINE_MARKER && !markerTyped;
  if (machine && !record.password.empty()) std::abort();
  if (machine && (!record.authType.empty() || record.clearAuthType)) std::abort();
  if (!record.authRequired.empty() && record.authRequired != "true" && record.authRequired != "false") std::abort();
  if (!record.authType.empty() && proxyAuthTypes.count(record.authType) == 0) std::abort();
  const size_t colon = record.server.find(':');
  if (!record.server.empty() && (colon == 0 || colon == std::string::npos || colon + 1 == record.server.size())) {
    std::abort();
  }
  if (letter == 'T' && (record.clearAuthType || record.clearAuthRequired)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const int letter = "SDLT"[data[0] % 4U];
  auto words = wordsFrom(std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
  const auto given = words;
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  optind = 0;  // a new scan
  CommandOptions record;
  const int code = readCommandOptions(letter, static_cast<int>(words.size()), argv.data(), record);
  if (code != result::Success && code != result::Usage) std::abort();
  // A refusal ends the run at once: what stands behind it was not read.
  if (code != result::Success) return 0;
  const bool markerTyped = std::any_of(given.begin(), given.end(), [](const std::string& word) {
    return word.find(MACHINE_MARKER) != std::string::npos;
  });
  requireRules(letter, record, markerTyped);
  const std::string secret = record.password.c_str();
  const auto holds = [&](const std::string& word) { return word.find(secret) != std::string::npos; };
  // As long as the longest name of an option, so that it is no part of one.
  if (secret.size() <= std::strlen("--password=")) return 0;
  // A text that stands in one word only stood there as the password, and is gone.
  if (std::count_if(given.begin(), given.end(), holds) != 1) return 0;
  if (std::any_of(words.begin(), words.end(), holds)) std::abort();
  return 0;
}
