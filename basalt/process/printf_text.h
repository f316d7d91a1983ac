// printf-style text from an argument list. Internal to the platform library.
#pragma once

#include <cstdarg>
#include <string>

namespace lumo {

// The text, of any length, empty for a format that cannot be filled. The list is used up; its owner ends it. Throws
// std::bad_alloc only.
std::string printfText(const char* format, va_list arguments);

}  // namespace lumo
