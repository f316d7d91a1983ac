// The text of the configuration file: one "key: value" a line. Pure functions on strings.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/include/properties.h"

namespace lumo {

using PropertyMap = std::map<std::string, std::string, StringCaseLessThan>;

// The settings of a file; the numbers of the lines that are none, and of the settings whose key holds "=", which
// somebody meant otherwise ("key = host:port"): at most `mostBadLines` of each, and the count of all.
struct ParsedProperties {
  static constexpr std::size_t mostBadLines = 20;
  PropertyMap values;
  std::vector<std::size_t> badLines;
  std::size_t badLineCount = 0;
  std::vector<std::size_t> oddKeys;
  std::size_t oddKeyCount = 0;
};

// Of a key given twice the last one holds, in the spelling of the first.
ParsedProperties parseProperties(std::string_view text);

// What is to become of a key: its new value, or nothing when it is to go.
using PropertyChanges = std::map<std::string, std::optional<std::string>, StringCaseLessThan>;

// The text with the changes and with all else as it was: a new value goes into the last line that gives the key, or
// else into a new line at the end; a key that goes takes all its lines along. Throws BadDataException, with words that
// name the key, for a key or a value that cannot stand in one line.
std::string mergeProperties(std::string_view text, const PropertyChanges& changes);

}  // namespace lumo
