// Texts that hold a secret where somebody else's interface wants a std::string.
#pragma once

#include <string.h>

#include <string>

// Overwrites a text and empties it.
inline void wipe(std::string& text) noexcept {
  explicit_bzero(text.data(), text.size());
  text.clear();
}

// Does so at the end of the scope.
struct WipeAtEnd {
  explicit WipeAtEnd(std::string& secret) : text(secret) {}
  ~WipeAtEnd() { wipe(text); }
  WipeAtEnd(const WipeAtEnd&) = delete;
  WipeAtEnd& operator=(const WipeAtEnd&) = delete;

  std::string& text;
};
