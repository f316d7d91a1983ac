// The trace: whatever the pieces, what comes out is the masked whole, no value behind the header's name, and nothing
// that acts on a terminal.
#include <strings.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "cli/cli_ferrogate_trace.h"
#include "fuzz/shown_text.h"

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

// What a TLS record of one byte becomes.
constexpr char RECORD[] = ">\\x17\n";

std::string without(std::string text, const std::string& part) {
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at)) text.erase(at, part.size());
  return text;
}

size_t textLines(const std::vector<std::string>& lines) {
  return static_cast<size_t>(std::count(lines.begin(), lines.end(), "*"));
}

// Text that needs no escapes. Bytes 0x80 and above cut it into outgoing pieces; 0x81 puts a text line in between, 0x82
// a TLS record.
void checkMask(const uint8_t* data, size_t size) {
  std::vector<std::string> lines{">"};
  std::string whole;
  for (size_t i = 0; i < size; ++i) {
    if (data[i] >= 0x80) {
      if (data[i] == 0x81) lines.emplace_back("*");
      if (data[i] == 0x82) lines.emplace_back(">\x17");
      lines.emplace_back(">");
    } else if ((data[i] >= ' ' && data[i] != 0x7f) || data[i] == '\n') {
      const char c = static_cast<char>(data[i]);
      if (c == '>' || c == '*' || c == '\\') continue;  // so that marks and escapes can be told from text
      lines.back() += c;
      whole += c;
    }
  }
  const std::string trace = without(without(maskedTrace(lines), RECORD), ">");
  const std::string expected = maskedWhole(whole);
  // Text lines are marks alone; the mask's own asterisks are compared by their number of bytes.
  if (without(trace, "*") != without(expected, "*") || trace.size() != expected.size() + textLines(lines)) std::abort();
  const std::string address = whole.substr(0, 200);
  const UrlPassword password = findUrlPassword(address);
  if (password.start + password.length > address.size()) std::abort();
  maskUrlPassword(address);
}

// Any bytes: 0xFE ends a piece, and the byte behind it gives the next one's mark.
void checkShown(const uint8_t* data, size_t size) {
  constexpr char MARKS[] = {'*', '<', '>'};
  std::vector<std::string> lines{"*"};
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0xFE && i + 1 < size) {
      lines.emplace_back(1, MARKS[data[++i] % sizeof MARKS]);
    } else {
      lines.back() += static_cast<char>(data[i]);
    }
  }
  requireShown(maskedTrace(lines, {lines.back().substr(1)}), true);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  checkMask(data, size);
  checkShown(data, size);
  return 0;
}
