#include "quill/rpc_text.h"

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/stringbuffer.h>

#include <algorithm>
#include <cstring>
#include <string_view>

namespace lumo::rpc {
namespace {

constexpr char HEX[] = "hex";
constexpr char DIGITS[] = "0123456789abcdef";

std::string encoded(const std::string& bytes) {
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += DIGITS[byte >> 4U];
    text += DIGITS[byte & 0xfU];
  }
  return text;
}

// The value of a lower-case digit, 16 for any other character.
std::size_t digit(char c) { return std::min<std::size_t>(std::string_view(DIGITS).find(c), 16); }

std::optional<std::string> decoded(std::string_view text) {
  if (text.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  bytes.reserve(text.size() / 2);
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const std::size_t high = digit(text[i]);
    const std::size_t low = digit(text[i + 1]);
    if (high == 16 || low == 16) return std::nullopt;
    bytes += static_cast<char>(high << 4U | low);
  }
  return bytes;
}

}  // namespace

bool isUtf8(const std::string& bytes) {
  rapidjson::MemoryStream in(bytes.data(), bytes.size());
  rapidjson::StringBuffer ignored;
  while (in.Tell() < bytes.size()) {
    if (!rapidjson::UTF8<>::Validate(in, ignored)) return false;
  }
  return true;
}

rapidjson::Value toJson(const std::string& bytes, rapidjson::Document::AllocatorType& allocator) {
  const auto string = [&allocator](const std::string& text) {
    return rapidjson::Value(text.data(), static_cast<rapidjson::SizeType>(text.size()), allocator);
  };
  if (isUtf8(bytes)) return string(bytes);
  rapidjson::Value value(rapidjson::kObjectType);
  value.AddMember(HEX, string(encoded(bytes)), allocator);
  return value;
}

std::optional<std::string> bytesFrom(const rapidjson::Value& value) {
  if (value.IsString()) return std::string(value.GetString(), value.GetStringLength());
  if (!value.IsObject() || value.MemberCount() != 1) return std::nullopt;
  const auto& only = *value.MemberBegin();
  if (std::strcmp(only.name.GetString(), HEX) != 0 || !only.value.IsString()) return std::nullopt;
  return decoded({only.value.GetString(), only.value.GetStringLength()});
}

}  // namespace lumo::rpc
