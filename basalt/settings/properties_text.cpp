#include "basalt/settings/properties_text.h"

#include "base/include/exceptions.h"
#include "base/include/string_helpers.h"

namespace lumo {
namespace {

constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view blanks = " \t\v\f\r";

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

bool startsWithMark(std::string_view text) { return text.substr(0, byteOrderMark.size()) == byteOrderMark; }

// A line of the file: its bytes with the newline, and what it says.
struct Line {
  enum class Kind { Setting, Silent, Bad };
  std::string_view bytes;
  Kind kind = Kind::Bad;
  std::string_view key;
  std::string_view value;
};

// Reads the setting of a line, whose newline is off.
void interpret(std::string_view text, Line& line) {
  const std::string_view content = trimmed(text);
  if (content.empty() || content.front() == '#') {
    line.kind = Line::Kind::Silent;
    return;
  }
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos || text.find('\0') != std::string_view::npos) return;
  line.key = trimmed(text.substr(0, colon));
  line.value = trimmed(text.substr(colon + 1));
  if (!line.key.empty()) line.kind = Line::Kind::Setting;
}

// Goes through the lines of a text.
class Lines {
 public:
  explicit Lines(std::string_view text) : m_rest(text) {}

  bool next(Line& line) {
    if (m_rest.empty()) return false;
    const std::size_t newline = m_rest.find('\n');
    const std::size_t size = newline == std::string_view::npos ? m_rest.size() : newline + 1;
    line = Line();
    line.bytes = m_rest.substr(0, size);
    std::string_view text = m_rest.substr(0, newline);
    // At every line, so that a line says the same once another one is the first.
    while (startsWithMark(text)) text.remove_prefix(byteOrderMark.size());
    interpret(text, line);
    m_rest.remove_prefix(size);
    return true;
  }

 private:
  std::string_view m_rest;
};

void requireOneLine(const std::string& key, const std::optional<std::string>& value) {
  constexpr std::string_view breaks("\n\r\0", 3);
  // A key must come back as it was when its line is read.
  const std::string text = key + ":";
  Line line;
  interpret(text, line);
  if (line.kind != Line::Kind::Setting || line.key != key || startsWithMark(key) ||
      key.find_first_of(breaks) != std::string::npos) {
    LUMO_THROW(BadDataException, -1, "'%s' cannot be the name of a setting", key.c_str());
  }
  if (value && value->find_first_of(breaks) != std::string::npos) {
    LUMO_THROW(BadDataException, -1, "The value of '%s' has a line break or a zero byte in it", key.c_str());
  }
}

using LastLines = std::map<std::string, const char*, StringCaseLessThan>;

// Where the last line of each key to change begins.
LastLines lastLines(std::string_view text, const PropertyChanges& changes) {
  LastLines last;
  Line line;
  for (Lines lines(text); lines.next(line);) {
    if (line.kind != Line::Kind::Setting) continue;
    const std::string key(line.key);
    if (changes.count(key) != 0) last[key] = line.bytes.data();
  }
  return last;
}

// The line with another value: key, blanks and the end of the line stay.
void appendChanged(std::string& out, const Line& line, const std::string& value) {
  const auto offset = [&](std::string_view part) { return static_cast<std::size_t>(part.data() - line.bytes.data()); };
  if (line.value.empty()) {
    const std::size_t colon = line.bytes.find(':');
    const std::size_t end = line.bytes.find_first_of("\r\n", colon);
    out.append(line.bytes.substr(0, colon)).append(value.empty() ? ":" : ": ").append(value);
    if (end != std::string_view::npos) out.append(line.bytes.substr(end));
    return;
  }
  out.append(line.bytes.substr(0, offset(line.value))).append(value);
  out.append(line.bytes.substr(offset(line.value) + line.value.size()));
}

// The end of line that the file uses.
std::string_view newlineOf(std::string_view text) {
  const std::size_t newline = text.find('\n');
  return newline != std::string_view::npos && newline > 0 && text[newline - 1] == '\r' ? "\r\n" : "\n";
}

void note(std::size_t line, std::vector<std::size_t>& lines, std::size_t& count) {
  ++count;
  if (lines.size() < ParsedProperties::mostBadLines) lines.push_back(line);
}

}  // namespace

ParsedProperties parseProperties(std::string_view text) {
  ParsedProperties parsed;
  std::size_t number = 0;
  Line line;
  for (Lines lines(text); lines.next(line);) {
    ++number;
    if (line.kind == Line::Kind::Setting) {
      parsed.values[std::string(line.key)] = std::string(line.value);
      if (line.key.find('=') != std::string_view::npos) note(number, parsed.oddKeys, parsed.oddKeyCount);
    } else if (line.kind == Line::Kind::Bad) {
      note(number, parsed.badLines, parsed.badLineCount);
    }
  }
  return parsed;
}

std::string mergeProperties(std::string_view text, const PropertyChanges& changes) {
  for (const auto& [key, value] : changes) requireOneLine(key, value);
  const LastLines last = lastLines(text, changes);
  std::string out;
  out.reserve(text.size());
  Line line;
  for (Lines lines(text); lines.next(line);) {
    const auto change = line.kind == Line::Kind::Setting ? changes.find(std::string(line.key)) : changes.end();
    if (change == changes.end()) {
      out.append(line.bytes);
    } else if (change->second) {
      if (last.at(change->first) == line.bytes.data()) {
        appendChanged(out, line, *change->second);
      } else {
        out.append(line.bytes);
      }
    }
  }
  const std::string_view newline = newlineOf(text);
  for (const auto& [key, value] : changes) {
    if (!value || last.count(key) != 0) continue;
    if (!out.empty() && out.back() != '\n') out.append(newline);
    out.append(key).append(value->empty() ? ":" : ": ").append(*value).append(newline);
  }
  return out;
}

}  // namespace lumo
