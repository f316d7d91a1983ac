// What stands where in this process's memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace testsupport {

// One mapping of /proc/self/smaps.
struct Mapping {
  std::uintptr_t start = 0;
  std::uintptr_t end = 0;
  std::string access;
  std::string name;
  std::string flags;  // " rd wr ... "
  std::size_t lockedKb = 0;
};
std::vector<Mapping> mappings();

// The mapping of each place where a text stands. It is given character by character, so that asking for it does not put
// it there. No other thread may give memory back meanwhile. Not under a sanitizer, whose memory is too large.
std::vector<Mapping> placesOf(unsigned length, const std::function<char(unsigned)>& characterAt);

// A text that stands nowhere unless somebody puts it there; it needs no escaping.
inline constexpr unsigned RARE_LENGTH = 48;
inline char rareCharacter(unsigned i) { return static_cast<char>('0' + (i * 7919U + 12345U) % 1021U % 43U); }

}  // namespace testsupport
