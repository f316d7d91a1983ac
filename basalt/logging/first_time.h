// Records that would repeat: said once for each cause and process.
#pragma once

#include <string>

namespace lumo {

// True the first time that the process asks for this text. It remembers a few hundred; beyond them it begins again, so
// that a text may then be said once more. Throws std::bad_alloc only. Any thread.
bool isFirstTime(const std::string& text);

}  // namespace lumo
