// The trace's masking: whatever the pieces, what comes out is the masked whole, and no value behind the header's name.
#include <strings.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "cli/cli_ferrogate_trace.h"

namespace {

constexpr char NAME[] = "authorization:";
constexpr size_t NAME_SIZE = sizeof NAME - 1;

// The whole text masked, written the plain way.
std::string maskedWhole(const std::string& text) {
  std::string out;
  for (size_t at = 0; at < text.size();) {
    if (strncasecmp(text.c_str() + at, NAME, NAME_SIZE) != 0) {
      out += text[at++];
      continue;
    }
    out += text.substr(at, NAME_SIZE + 1);
    if (at + NAME_SIZE < text.size()) out += "******";
    at = at + NAME_SIZE + 1 >= text.size() ? text.size() : std::min(text.find('\n', at + NAME_SIZE + 1), text.size());
    if (at < text.size()) out += text[at++];
  }
  return out;
}

}  // namespace

// Bytes 0x80 and above cut the rest into outgoing pieces; 0x81 puts a text line in between, 0x82 a TLS record.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> lines{">"};
  std::string whole;
  for (size_t i = 0; i < size; ++i) {
    if (data[i] >= 0x80) {
      if (data[i] == 0x81) lines.emplace_back("*");
      if (data[i] == 0x82) lines.emplace_back(">\x17");
      lines.emplace_back(">");
    } else if (data[i] >= ' ' || data[i] == '\n' || data[i] == '\r') {
      if (data[i] == '>' || data[i] == '*') continue;  // so that marks can be told from text
      lines.back() += static_cast<char>(data[i]);
      whole += static_cast<char>(data[i]);
    }
  }
  std::string trace;
  for (const char c : maskedTrace(lines)) {
    if (c != '>' && c != '\x17') trace += c;
  }
  std::string expected = maskedWhole(whole);
  // Text lines are marks alone; the mask's own asterisks are compared by their number of bytes.
  size_t textLines = 0;
  for (const auto& line : lines) textLines += line == "*" ? 1 : 0;
  std::string bare;
  for (const char c : trace) bare += c == '*' ? "" : std::string(1, c);
  std::string bareExpected;
  for (const char c : expected) bareExpected += c == '*' ? "" : std::string(1, c);
  if (bare != bareExpected || trace.size() != expected.size() + textLines) std::abort();
  const std::string address = whole.substr(0, 200);
  const UrlPassword password = findUrlPassword(address);
  if (password.start + password.length > address.size()) std::abort();
  maskUrlPassword(address);
  return 0;
}
