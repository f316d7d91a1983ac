#include "base/include/printable.h"

namespace lumo {
namespace {

// Length of the well-formed UTF-8 sequence at `at`; 0 where there is none (RFC 3629).
std::size_t sequenceLength(std::string_view text, std::size_t at) {
  const auto byte = [&](std::size_t i) -> unsigned {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
  };
  const unsigned first = byte(at);
  if (first < 0x80) return 1;
  if (first < 0xC2 || first > 0xF4) return 0;
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0U) != 0x80) return 0;
  }
  const unsigned second = byte(at + 1);
  const bool malformed = (first == 0xE0 && second < 0xA0) || (first == 0xED && second >= 0xA0) ||
                         (first == 0xF0 && second < 0x90) || (first == 0xF4 && second >= 0x90);
  return malformed ? 0 : length;
}

// Is this character shown as it is? Not shown: C0, DEL and C1 controls, U+061C, U+200E, U+200F, U+2028 to U+202E,
// U+2066 to U+2069 and U+FEFF.
bool isShown(std::string_view character) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(character[i]); };
  const unsigned first = byte(0);
  if (character.size() == 1) return first >= 0x20 && first != 0x7F;
  const unsigned second = byte(1);
  if (character.size() == 2) return !(first == 0xC2 && second < 0xA0) && !(first == 0xD8 && second == 0x9C);
  if (character.size() != 3) return true;
  const unsigned third = byte(2);
  if (first == 0xE2 && second == 0x80) return third != 0x8E && third != 0x8F && (third < 0xA8 || third > 0xAE);
  if (first == 0xE2 && second == 0x81) return third < 0xA6 || third > 0xA9;
  return !(first == 0xEF && second == 0xBB && third == 0xBF);
}

void appendEscaped(std::string& out, char c) {
  constexpr char digits[] = "0123456789abcdef";
  const auto value = static_cast<unsigned char>(c);
  switch (c) {
    case '\n':
      out += "\\n";
      break;
    case '\r':
      out += "\\r";
      break;
    case '\t':
      out += "\\t";
      break;
    default:
      out += {'\\', 'x', digits[value >> 4U], digits[value & 15U]};
  }
}

}  // namespace

std::string printable(std::string_view foreign) { return printable(foreign, foreign.size()); }

std::string printable(std::string_view foreign, std::size_t limit) {
  std::string out;
  out.reserve(foreign.size() < limit ? foreign.size() : limit);
  std::size_t at = 0;
  while (at < foreign.size()) {
    const std::size_t sequence = sequenceLength(foreign, at);
    const std::size_t length = sequence == 0 ? 1 : sequence;
    if (at + length > limit) break;
    const std::string_view character = foreign.substr(at, length);
    if (sequence != 0 && isShown(character)) {
      out.append(character);
    } else {
      for (const char c : character) appendEscaped(out, c);
    }
    at += length;
  }
  if (at < foreign.size()) out += "...";
  return out;
}

std::string printableLines(std::string_view ours) {
  std::string out;
  out.reserve(ours.size());
  for (std::size_t at = 0; at < ours.size();) {
    const std::size_t end = ours.find('\n', at);
    if (end == std::string_view::npos) return out + printable(ours.substr(at));
    const bool returns = end > at && ours[end - 1] == '\r';
    out += printable(ours.substr(at, end - at - (returns ? 1 : 0)));
    out += returns ? "\r\n" : "\n";
    at = end + 1;
  }
  return out;
}

}  // namespace lumo
