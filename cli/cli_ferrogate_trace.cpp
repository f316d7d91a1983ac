#include "cli/cli_ferrogate_trace.h"

#include <algorithm>

#include "base/include/printable.h"

namespace {

constexpr std::string_view HEADER = "authorization:";
constexpr std::string_view MASK = "******";

// Bytes of a TLS record or of a binary body that are shown.
constexpr std::size_t BINARY_SHOWN = 32;

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

// Is most of it no text? An escaped byte takes two to four characters.
bool isBinary(std::string_view text) { return lumo::printable(text).size() > 2 * text.size(); }

void appendShort(char mark, std::string_view bytes, std::string& out) {
  out += mark + lumo::printable(bytes, BINARY_SHOWN) + "\n";
}

// Escapes one direction's text as it comes in pieces. A peer's line feed within a piece begins a line with the piece's
// mark, so that no peer writes lines of another mark. What goes out is ours: its lines stand as they are.
class LineWriter {
 public:
  void write(char mark, std::string_view piece, std::string& out) {
    const std::string text = heldReturn + std::string(piece);
    // Half a line end? The next piece tells.
    const bool held = !text.empty() && text.back() == '\r';
    heldReturn.assign(held ? 1 : 0, '\r');
    out += mark;
    std::string_view left = std::string_view(text).substr(0, text.size() - heldReturn.size());
    for (auto end = left.find('\n'); end != std::string_view::npos; end = left.find('\n')) {
      out += lumo::printableLines(left.substr(0, end + 1));
      left.remove_prefix(end + 1);
      if (!left.empty() && mark != '>') out += mark;
    }
    out += lumo::printable(left);
  }

 private:
  std::string heldReturn;
};

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  if (from.empty() || from == to) return;
  for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}

// What is remembered of one direction from piece to piece.
struct Direction {
  HeaderMasker masker;
  LineWriter lines;
};

}  // namespace

UrlPassword findUrlPassword(std::string_view address) {
  constexpr auto npos = std::string_view::npos;
  const auto scheme = address.find("://");
  const auto start = scheme == npos ? 0 : scheme + 3;
  const auto end = std::min(address.find_first_of("/?#", start), address.size());
  const auto colon = address.find(':', start);
  const auto at = end == start ? npos : address.rfind('@', end - 1);
  if (colon == npos || at == npos || at <= colon + 1 || colon < start) return {};
  return {colon + 1, at - colon - 1};
}

std::string maskUrlPassword(const std::string& address) {
  const UrlPassword password = findUrlPassword(address);
  if (password.length == 0) return address;
  return std::string(address).replace(password.start, password.length, MASK);
}

std::string maskedTrace(const std::vector<std::string>& debugLines, const std::vector<std::string>& addresses) {
  Direction incoming;
  Direction outgoing;
  std::string trace;
  for (const std::string& line : debugLines) {
    if (line.empty()) continue;
    const std::string_view text = std::string_view(line).substr(1);
    const bool record = isRecordPiece(text);
    Direction alone;
    const bool continues = (line.front() == '<' || line.front() == '>') && !record;
    Direction& direction = !continues ? alone : line.front() == '<' ? incoming : outgoing;
    std::string masked;
    direction.masker.feed(text, masked);
    // Before anything is escaped: an escaped address would no longer be found.
    for (const std::string& address : addresses) replaceAll(masked, address, maskUrlPassword(address));
    if (record || isBinary(masked)) {
      appendShort(line.front(), masked, trace);
    } else {
      direction.lines.write(line.front(), masked, trace);
    }
  }
  return trace;
}
