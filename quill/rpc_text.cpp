#include "quill/rpc_text.h"

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/stringbuffer.h>
#include <sodium.h>

#include <algorithm>
#include <cstring>

namespace lumo::rpc {
namespace {

constexpr char BASE64[] = "base64";

std::string encoded(const std::string& bytes) {
  std::string text(sodium_base64_encoded_len(bytes.size(), sodium_base64_VARIANT_ORIGINAL), '\0');
  sodium_bin2base64(text.data(), text.size(), reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                    sodium_base64_VARIANT_ORIGINAL);
  text.pop_back();  // the terminating zero
  return text;
}

std::optional<std::string> decoded(const char* text, std::size_t size) {
  std::string bytes(size / 4 * 3 + 3, '\0');
  std::size_t length = 0;
  if (sodium_base642bin(reinterpret_cast<unsigned char*>(bytes.data()), bytes.size(), text, size, nullptr, &length,
                        nullptr, sodium_base64_VARIANT_ORIGINAL) != 0) {
    return std::nullopt;
  }
  bytes.resize(length);
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

std::string printable(const std::string& text) {
  if (isUtf8(text)) return text;
  std::string ascii = text;
  std::replace_if(
      ascii.begin(), ascii.end(), [](char c) { return static_cast<unsigned char>(c) > 0x7f; }, '?');
  return ascii;
}

rapidjson::Value toJson(const std::string& bytes, rapidjson::Document::AllocatorType& allocator) {
  const auto string = [&allocator](const std::string& text) {
    return rapidjson::Value(text.data(), static_cast<rapidjson::SizeType>(text.size()), allocator);
  };
  if (isUtf8(bytes)) return string(bytes);
  rapidjson::Value value(rapidjson::kObjectType);
  value.AddMember(BASE64, string(encoded(bytes)), allocator);
  return value;
}

std::optional<std::string> bytesFrom(const rapidjson::Value& value) {
  if (value.IsString()) return std::string(value.GetString(), value.GetStringLength());
  if (!value.IsObject() || value.MemberCount() != 1) return std::nullopt;
  const auto& only = *value.MemberBegin();
  if (std::strcmp(only.name.GetString(), BASE64) != 0 || !only.value.IsString()) return std::nullopt;
  return decoded(only.value.GetString(), only.value.GetStringLength());
}

}  // namespace lumo::rpc
