#include "base/include/exceptions.h"

#include <cstdarg>
#include <cstdio>

namespace lumo {

std::string exceptionMessage(const char* format, ...) {
  char buffer[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);
  return buffer;
}

}  // namespace lumo
