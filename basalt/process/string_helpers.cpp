#include "base/include/string_helpers.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

#include "basalt/process/printf_text.h"

namespace {

constexpr char whiteSpace[] = " \t\n\v\f\r";

char lowerLetter(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
char upperLetter(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

}  // namespace

std::string lumo::printfText(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  std::string text;
  if (length > 0) {
    try {
      text.resize(static_cast<std::size_t>(length) + 1);
    } catch (...) {
      va_end(again);
      throw;
    }
    std::vsnprintf(text.data(), text.size(), format, again);
    text.pop_back();
  }
  va_end(again);
  return text;
}

std::string VS(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  try {
    std::string text = lumo::printfText(format, arguments);
    va_end(arguments);
    return text;
  } catch (...) {
    va_end(arguments);
    throw;
  }
}

std::string lower(const std::string& s) {
  std::string result = s;
  std::transform(result.begin(), result.end(), result.begin(), lowerLetter);
  return result;
}

std::string upper(const std::string& s) {
  std::string result = s;
  std::transform(result.begin(), result.end(), result.begin(), upperLetter);
  return result;
}

bool startsWith(const std::string& s, const std::string& prefix, bool ignoreCase, bool skipSpace) {
  const std::size_t first = skipSpace ? std::min(s.find_first_not_of(whiteSpace), s.size()) : 0;
  if (s.size() - first < prefix.size()) return false;
  return std::equal(prefix.begin(), prefix.end(), s.begin() + static_cast<std::ptrdiff_t>(first),
                    [&](char a, char b) { return ignoreCase ? lowerLetter(a) == lowerLetter(b) : a == b; });
}

bool contains(const std::string& s, const std::string& t) { return s.find(t) != std::string::npos; }

bool contains(const std::string& s, const char* t) { return s.find(t) != std::string::npos; }

std::string trimWhiteSpace(const std::string& s) {
  const std::size_t first = s.find_first_not_of(whiteSpace);
  if (first == std::string::npos) return {};
  return s.substr(first, s.find_last_not_of(whiteSpace) - first + 1);
}

void StringSplit(char separator, const std::string& s, std::vector<std::string>& parts) {
  parts.clear();
  std::size_t start = 0;
  for (;;) {
    const std::size_t end = s.find(separator, start);
    if (end == std::string::npos) break;
    parts.push_back(s.substr(start, end - start));
    start = end + 1;
  }
  parts.push_back(s.substr(start));
}

std::string uitoa(unsigned long long value, int base) {
  if (base < 2 || base > 36) return {};
  const auto radix = static_cast<unsigned>(base);
  std::string digits;
  do {
    digits.push_back("0123456789abcdefghijklmnopqrstuvwxyz"[value % radix]);
    value /= radix;
  } while (value != 0);
  std::reverse(digits.begin(), digits.end());
  return digits;
}

std::string itoa(long long value, int base) {
  if (value >= 0) return uitoa(static_cast<unsigned long long>(value), base);
  // The smallest number has no positive counterpart of its own type.
  const std::string digits = uitoa(0ULL - static_cast<unsigned long long>(value), base);
  return digits.empty() ? digits : "-" + digits;
}

std::string concat(const std::list<std::string>& list, const std::string& separator) {
  std::string result;
  for (auto entry = list.begin(); entry != list.end(); ++entry) {
    if (entry != list.begin()) result += separator;
    result += *entry;
  }
  return result;
}
