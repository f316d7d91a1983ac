#include "basalt/process/process_environment.h"

#include <unistd.h>

#include <cstring>
#include <string_view>

namespace lumo {
namespace {

using Text = std::string_view;

bool isGraphic(char c) { return c > ' ' && c < '\x7f'; }

// Every character is graphic and none is among the forbidden ones.
bool isPlain(Text value, Text forbidden) {
  for (const char c : value) {
    if (!isGraphic(c) || forbidden.find(c) != Text::npos) return false;
  }
  return true;
}

bool anyValue(Text) { return true; }

// A locale's name with a folder in it, or a format, leads libraries to files or text of the caller's choice.
bool isLocaleOrTerminal(Text value) { return isPlain(value, "/%"); }

bool isTimeZone(Text value) {
  constexpr Text SYSTEM_FOLDER = "/usr/share/zoneinfo/";
  if (!isPlain(value, "") || value.find("..") != Text::npos) return false;
  if (value.substr(0, 1) == ":") value.remove_prefix(1);
  return value.substr(0, 1) != "/" || value.substr(0, SYSTEM_FOLDER.size()) == SYSTEM_FOLDER;
}

bool isNumber(Text value) { return !value.empty() && value.find_first_not_of("0123456789") == Text::npos; }

struct Row {
  const char* name;  // "NAME" or "BEGINNING*"
  bool (*fits)(Text value);
};

constexpr Row KEPT[] = {
    {"PATH", &anyValue},
    {"LANG", &isLocaleOrTerminal},
    {"LC_*", &isLocaleOrTerminal},
    {"TERM", &isLocaleOrTerminal},
    {"TZ", &isTimeZone},
    {"SUDO_USER", &anyValue},
    {"SUDO_UID", &isNumber},
    {"SUDO_GID", &isNumber},
    {"SUDO_COMMAND", &anyValue},
#ifdef FERRO_COUNTED_LINES
    // A build that counts lines asks these where the counts go.
    {"GCOV_*", &anyValue},
    {"LLVM_PROFILE_FILE", &anyValue},
#endif
};

bool isNamed(Text name, Text pattern) {
  if (pattern.empty() || pattern.back() != '*') return name == pattern;
  pattern.remove_suffix(1);
  return name.substr(0, pattern.size()) == pattern;
}

bool isKept(Text entry, const char* const* also) {
  const auto equals = entry.find('=');
  if (equals == Text::npos) return false;
  const Text name = entry.substr(0, equals);
  for (const Row& row : KEPT) {
    if (isNamed(name, row.name)) return row.fits(entry.substr(equals + 1));
  }
  for (; also != nullptr && *also != nullptr; ++also) {
    if (isNamed(name, *also)) return true;
  }
  return false;
}

// sudo gives the whole command line.
void forgetArguments(char* entry) {
  constexpr Text COMMAND = "SUDO_COMMAND=";
  if (Text(entry).substr(0, COMMAND.size()) != COMMAND) return;
  if (char* const blank = std::strchr(entry, ' '); blank != nullptr) explicit_bzero(blank, std::strlen(blank));
}

}  // namespace

void cleanEnvironment(char** environment, const char* const* also) noexcept {
  if (environment == nullptr) return;
  char** kept = environment;
  for (char** entry = environment; *entry != nullptr; ++entry) {
    if (!isKept(*entry, also)) continue;
    forgetArguments(*entry);
    *kept++ = *entry;
  }
  *kept = nullptr;
}

std::vector<std::string> childEnvironment() {
  constexpr Text PATH = "PATH=";
  std::vector<std::string> variables{std::string(PATH) + CHILD_PATH};
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const Text text = *entry;
    if (!isKept(text, nullptr) || text.substr(0, PATH.size()) == PATH) continue;
    variables.emplace_back(text);
    forgetArguments(variables.back().data());
    variables.back().resize(std::strlen(variables.back().c_str()));
  }
  return variables;
}

}  // namespace lumo
