// lumo::printable: what comes out acts on no terminal, says the same when it is escaped again, and text that needs no
// escapes is unchanged.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "base/include/printable.h"
#include "fuzz/shown_text.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

bool isPlain(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c < 0x7f; });
}

}  // namespace

// The first byte is the limit.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t limit = data[0];
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);

  const std::string whole = lumo::printable(text);
  requireShown(whole, false);
  require(lumo::printable(whole) == whole);
  require(!isPlain(text) || whole == text);
  require(whole.size() >= text.size() && whole.size() <= 4 * text.size());

  const std::string cut = lumo::printable(text, limit);
  requireShown(cut, false);
  require(cut.size() <= 4 * limit + 3);
  require(text.size() > limit || cut == whole);
  require(text.size() <= limit || (cut.size() >= 3 && cut.compare(cut.size() - 3, 3, "...") == 0));

  const std::string lines = lumo::printableLines(text);
  requireShown(lines, true);
  require(lumo::printableLines(lines) == lines);
  require(std::count(lines.begin(), lines.end(), '\n') == std::count(text.begin(), text.end(), '\n'));
  return 0;
}
