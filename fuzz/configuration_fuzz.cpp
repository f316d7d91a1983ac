// The configuration file: text in front of the first 0xff byte, changes behind it. What a merge writes must read back
// as the old settings with the changes, and every line that no change names must still be there.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "basalt/settings/properties_text.h"
#include "base/include/exceptions.h"

namespace {

lumo::PropertyChanges changesFrom(const std::string& text) {
  lumo::PropertyChanges changes;
  for (const auto& [key, value] : lumo::parseProperties(text).values) {
    if (value == "-") {
      changes[key] = std::nullopt;
    } else {
      changes[key] = value;
    }
  }
  return changes;
}

bool same(const lumo::PropertyMap& a, const lumo::PropertyMap& b) {
  auto left = a.begin();
  for (auto right = b.begin(); right != b.end(); ++right, ++left) {
    const lumo::StringCaseLessThan less;
    if (left == a.end() || less(left->first, right->first) || less(right->first, left->first)) return false;
    if (left->second != right->second) return false;
  }
  return left == a.end();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t cut = input.find('\xff');
  const std::string text = input.substr(0, cut);
  const auto changes = changesFrom(cut == std::string::npos ? std::string() : input.substr(cut + 1));
  const auto before = lumo::parseProperties(text);
  auto expected = before.values;
  for (const auto& [key, value] : changes) {
    if (value) {
      expected[key] = *value;
    } else {
      expected.erase(key);
    }
  }
  std::string merged;
  try {
    merged = lumo::mergeProperties(text, changes);
  } catch (const lumo::BadDataException&) {
    return 0;
  }
  const auto after = lumo::parseProperties(merged);
  if (!same(after.values, expected) || after.badLineCount != before.badLineCount) std::abort();
  if (changes.empty() && merged != text) std::abort();
  return 0;
}
