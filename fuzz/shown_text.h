// What may be printed, checked in another way than lumo::printable does it: by code points.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>

// The code point at `at`, which moves behind it. Aborts on what is not UTF-8.
inline std::uint32_t codePoint(const std::string& text, std::size_t& at) {
  const auto next = [&]() -> std::uint32_t {
    if (at == text.size()) std::abort();
    return static_cast<unsigned char>(text[at++]);
  };
  std::uint32_t value = next();
  const int more = value < 0x80 ? 0 : value < 0xC2 ? -1 : value < 0xE0 ? 1 : value < 0xF0 ? 2 : value < 0xF5 ? 3 : -1;
  if (more < 0) std::abort();
  constexpr std::uint32_t LEAD[] = {0x7F, 0x1F, 0x0F, 0x07};
  constexpr std::uint32_t LEAST[] = {0, 0x80, 0x800, 0x10000};
  value &= LEAD[more];
  for (int i = 0; i < more; ++i) {
    const std::uint32_t byte = next();
    if (byte >> 6U != 2) std::abort();
    value = value << 6U | (byte & 0x3FU);
  }
  if (value < LEAST[more] || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) std::abort();
  return value;
}

// Aborts where the text holds a control character, one that changes the direction of writing or ends a line, or what is
// not UTF-8. With `lines`, line feeds may stand in it, also behind a carriage return.
inline void requireShown(const std::string& text, bool lines) {
  for (std::size_t at = 0; at < text.size();) {
    const std::uint32_t c = codePoint(text, at);
    if (lines && (c == '\n' || (c == '\r' && at < text.size() && text[at] == '\n'))) continue;
    const bool control = c < 0x20 || (c >= 0x7F && c < 0xA0);
    const bool line = c == 0x2028 || c == 0x2029;
    const bool direction = c == 0x61C || c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) ||
                           (c >= 0x2066 && c <= 0x2069) || c == 0xFEFF;
    if (control || line || direction) std::abort();
  }
}
