// Small string helpers that every room uses. Pure functions, any thread; ASCII letters only, whatever the locale.
// Defined by the platform library.
#pragma once

#include <list>
#include <string>
#include <vector>

// printf-style filling into a string of any length. Throws std::bad_alloc only.
std::string VS(const char* format, ...) __attribute__((format(printf, 1, 2)));

std::string lower(const std::string& s);
std::string upper(const std::string& s);

// Does s begin with prefix? ignoreCase compares letters without case; skipSpace first passes over leading white space.
bool startsWith(const std::string& s, const std::string& prefix, bool ignoreCase, bool skipSpace);

bool contains(const std::string& s, const std::string& t);
bool contains(const std::string& s, const char* t);

// A copy without leading and trailing white space (blank, \t, \n, \v, \f, \r).
std::string trimWhiteSpace(const std::string& s);

// Fills parts with the pieces of s between each separator; empty pieces are kept, and "" gives one empty piece.
void StringSplit(char separator, const std::string& s, std::vector<std::string>& parts);

// The number in text to the base 2 to 36, lower-case digits; empty for any other base.
std::string itoa(long long value, int base);
std::string uitoa(unsigned long long value, int base);

// The strings of the list joined by the separator.
std::string concat(const std::list<std::string>& list, const std::string& separator);
