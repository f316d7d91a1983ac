#include "cli/cli_ferrogate_trace.h"

#include <algorithm>
#include <string_view>

namespace {

constexpr std::string_view HEADER = "authorization:";
constexpr std::string_view MASK = "******";

char lowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Masks one direction's text as it comes in pieces.
class HeaderMasker {
 public:
  void feed(std::string_view piece, std::string& out) {
    for (const char c : piece) step(c, out);
  }

 private:
  enum class State { Text, BehindColon, Value };

  void step(char c, std::string& out) {
    switch (state) {
      case State::Text:
        out += c;
        match(c);
        return;
      case State::BehindColon:
        out += c;
        out += MASK;
        state = State::Value;
        return;
      case State::Value:
        if (c != '\n') return;
        out += c;
        state = State::Text;
        matched = 0;
        return;
    }
  }

  void match(char c) {
    const char small = lowerAscii(c);
    // "authoriza" is the one beginning of the name whose end, "a", begins the name again.
    if (small != HEADER[matched]) matched = HEADER.substr(0, matched) == "authoriza" ? 1 : 0;
    matched = small == HEADER[matched] ? matched + 1 : (small == HEADER[0] ? 1 : 0);
    if (matched == HEADER.size()) state = State::BehindColon;
  }

  State state = State::Text;
  std::size_t matched = 0;
};

bool isRecordPiece(std::string_view text) {
  const unsigned char first = text.empty() ? ' ' : static_cast<unsigned char>(text.front());
  return first < ' ' && first != '\r' && first != '\n' && first != '\t';
}

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}

}  // namespace

UrlPassword findUrlPassword(const std::string& address) {
  const auto scheme = address.find("://");
  const auto start = scheme == std::string::npos ? 0 : scheme + 3;
  const auto end = std::min(address.find_first_of("/?#", start), address.size());
  const auto colon = address.find(':', start);
  const auto at = end == start ? std::string::npos : address.rfind('@', end - 1);
  if (colon == std::string::npos || at == std::string::npos || at <= colon + 1 || colon < start) return {};
  return {colon + 1, at - colon - 1};
}

std::string maskUrlPassword(const std::string& address) {
  const UrlPassword password = findUrlPassword(address);
  if (password.length == 0) return address;
  return std::string(address).replace(password.start, password.length, MASK);
}

std::string maskedTrace(const std::vector<std::string>& debugLines, const std::vector<std::string>& addresses) {
  HeaderMasker incoming;
  HeaderMasker outgoing;
  std::string trace;
  for (const std::string& line : debugLines) {
    if (line.empty()) continue;
    const std::string_view text = std::string_view(line).substr(1);
    trace += line.front();
    HeaderMasker alone;
    const bool continues = (line.front() == '<' || line.front() == '>') && !isRecordPiece(text);
    HeaderMasker& direction = line.front() == '<' ? incoming : outgoing;
    (continues ? direction : alone).feed(text, trace);
  }
  for (const std::string& address : addresses) {
    if (const std::string masked = maskUrlPassword(address); masked != address) replaceAll(trace, address, masked);
  }
  return trace;
}
