#include "cloud/rest/json_reader.h"

#include <locale.h>
#include <rapidjson/reader.h>
#include <stdlib.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>
#include <string_view>

namespace {

using rapidjson::Document;
using rapidjson::SizeType;

// UTF-8 that the reader passes over in runs: its own loop asks three questions about each byte.
struct RunsOfUtf8 : rapidjson::UTF8<> {};

constexpr auto ORDINARY = [] {
  std::array<bool, 256> table{};
  for (std::size_t byte = 0x20; byte < table.size(); ++byte) table[byte] = byte != '"' && byte != '\\';
  return table;
}();

}  // namespace

template <>
struct rapidjson::Transcoder<RunsOfUtf8, RunsOfUtf8> {
  using Text = rapidjson::GenericInsituStringStream<RunsOfUtf8>;

  // At a byte that is part of a string. What goes out stands in the same stream; the library's code for texts that are
  // not read in place, which is never run, names another.
  template <class Same>
  static bool Transcode(Text& text, Same&) {
    const char* const begin = text.src_;
    do {
      ++text.src_;
    } while (ORDINARY[static_cast<unsigned char>(*text.src_)]);
    const auto length = static_cast<std::size_t>(text.src_ - begin);
    // An escape before it has made what goes out shorter.
    if (text.dst_ != begin) std::memmove(text.dst_, begin, length);
    text.dst_ += length;
    return true;
  }
  template <class Same>
  static bool Validate(Text& text, Same& out) {
    return Transcode(text, out);
  }
};

namespace {

// Numbers come as text: the library's usual way of reading them is inexact, and its exact way (kParseFullPrecisionFlag)
// reads beyond its tables for a number like 0.000...1.
constexpr unsigned PARSE =
    rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag;

constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";

// The nearest double, whatever locale the process has set; an infinity for one that is too large.
double nearestDouble(const char* text) {
  static const locale_t plain = newlocale(LC_ALL_MASK, "C", locale_t{});
  return strtod_l(text, nullptr, plain);
}

// Between the reader and the document: counts, and turns texts of numbers into numbers.
class Builder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Builder> {
 public:
  Builder(Document& document, JsonLimits limits) : m_document(document), m_limits(limits) {}

  bool Null() { return counts() && m_document.Null(); }
  bool Bool(bool value) { return counts() && m_document.Bool(value); }
  bool String(const char* text, SizeType length, bool copy) {
    return counts() && m_document.String(text, length, copy);
  }
  bool Key(const char* text, SizeType length, bool copy) { return m_document.Key(text, length, copy); }
  bool RawNumber(const char* text, SizeType length, bool) { return counts() && number({text, length}); }

  bool StartObject() { return counts() && ++m_depth <= m_limits.depth && m_document.StartObject(); }
  bool StartArray() { return counts() && ++m_depth <= m_limits.depth && m_document.StartArray(); }
  bool EndObject(SizeType members) {
    --m_depth;
    return m_document.EndObject(members);
  }
  bool EndArray(SizeType elements) {
    --m_depth;
    return m_document.EndArray(elements);
  }

 private:
  bool counts() { return ++m_values <= m_limits.values; }

  template <class Integer>
  static bool reads(std::string_view text, Integer& value) {
    return std::from_chars(text.begin(), text.end(), value).ec == std::errc();
  }

  // The text is a number of JSON; what stands behind it is no part of a number, or a zero byte.
  bool number(std::string_view text) {
    if (text.find_first_of(".eE") == std::string_view::npos) {
      std::int64_t whole = 0;
      if (reads(text, whole)) return m_document.Int64(whole);
      std::uint64_t large = 0;
      if (reads(text, large)) return m_document.Uint64(large);
    }
    const double value = nearestDouble(text.data());
    return std::isfinite(value) && m_document.Double(value);
  }

  Document& m_document;
  const JsonLimits m_limits;
  std::size_t m_depth = 0;
  std::size_t m_values = 0;
};

}  // namespace

Document readJson(std::string_view text, JsonLimits limits) {
  if (text.substr(0, BYTE_ORDER_MARK.size()) == BYTE_ORDER_MARK) text.remove_prefix(BYTE_ORDER_MARK.size());
  Document document;
  // The document's strings stay where they stand in its own copy of the text.
  auto* const copy = static_cast<char*>(document.GetAllocator().Malloc(text.size() + 1));
  if (copy == nullptr) throw std::bad_alloc();
  copy[text.copy(copy, text.size())] = '\0';
  const auto parse = [&](Document& target) {
    rapidjson::GenericInsituStringStream<RunsOfUtf8> input(copy);
    rapidjson::GenericReader<RunsOfUtf8, RunsOfUtf8> reader;
    Builder builder(target, limits);
    return !reader.Parse<PARSE>(input, builder).IsError();
  };
  document.Populate(parse);
  return document;
}
