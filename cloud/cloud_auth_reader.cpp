// Before any header of RapidJSON: strings are then scanned 16 bytes at a time. No other source reads texts in place, so
// that it is the same everywhere.
#ifdef __SSE2__
#define RAPIDJSON_SSE2
#endif

#include "cloud/cloud_auth_reader.h"

#include <locale.h>
#include <rapidjson/reader.h>
#include <stdlib.h>

#include <charconv>
#include <cmath>
#include <cstring>
#include <new>
#include <string_view>

namespace {

using rapidjson::Document;
using rapidjson::SizeType;

// Numbers come as text: the library's usual way of reading them is inexact, and its exact way (kParseFullPrecisionFlag)
// reads beyond its tables for a number like 0.000...1.
constexpr unsigned PARSE =
    rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag;

// The reader looks at whole blocks, also at the one in which the text ends.
constexpr std::size_t BLOCK = 16;

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
  auto* const copy = static_cast<char*>(document.GetAllocator().Malloc(text.size() + BLOCK));
  if (copy == nullptr) throw std::bad_alloc();
  std::memcpy(copy, text.data(), text.size());
  std::memset(copy + text.size(), 0, BLOCK);
  const auto parse = [&](Document& target) {
    rapidjson::InsituStringStream input(copy);
    rapidjson::Reader reader;
    Builder builder(target, limits);
    return !reader.Parse<PARSE>(input, builder).IsError();
  };
  document.Populate(parse);
  return document;
}
