// How the text of a reply becomes a JSON document, whatever the peer sends.
#pragma once

#include <rapidjson/document.h>

#include <string_view>

// Beyond either a text counts as no JSON. A body of nothing but brackets or commas would take 20 to 30 times its own
// size otherwise.
struct JsonLimits {
  std::size_t depth = 1'000'000;
  std::size_t values = 10'000'000;  // those that hold others too; names of members do not count
};

// The document of the text, null when it is no JSON. Neither depth nor numbers of the text can overrun anything: there
// is no recursion, and a number becomes the nearest double, so that a document once written reads back to the same
// text. Any thread.
rapidjson::Document readJson(std::string_view text, JsonLimits limits = {});
