// Byte strings in JSON: internal to the message unit.
#pragma once

#include <rapidjson/document.h>

#include <optional>
#include <string>

namespace lumo::rpc {

// A JSON string where the bytes are UTF-8, else {"hex": "..."}: what the directory holds survives byte by byte.
rapidjson::Value toJson(const std::string& bytes, rapidjson::Document::AllocatorType& allocator);
// Empty when the value is neither form.
std::optional<std::string> bytesFrom(const rapidjson::Value& value);

bool isUtf8(const std::string& bytes);

}  // namespace lumo::rpc
