#include "lab/platform/platform_json.h"

#include <rapidjson/error/en.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <stdexcept>

namespace ferrolab {
namespace {

[[noreturn]] void refuse(const std::string& words) { throw std::invalid_argument(words); }

bool isIndex(const std::string& name) {
  return !name.empty() && name.find_first_not_of("0123456789") == std::string::npos;
}

// One step of a path.
JsonValue* child(JsonValue& value, const std::string& name) {
  if (value.IsArray() && isIndex(name)) {
    const unsigned long index = std::stoul(name);
    return index < value.Size() ? &value[static_cast<rapidjson::SizeType>(index)] : nullptr;
  }
  if (!value.IsObject()) return nullptr;
  const auto found = value.FindMember(name.c_str());
  return found == value.MemberEnd() ? nullptr : &found->value;
}

// What stands before the last dot, and behind it.
std::pair<std::string, std::string> split(const std::string& path) {
  const size_t dot = path.rfind('.');
  if (dot == std::string::npos) return {"", path};
  return {path.substr(0, dot), path.substr(dot + 1)};
}

}  // namespace

JsonObject& JsonObject::raw(const std::string& name, const std::string& json) {
  m_text += m_text.empty() ? "{" : ",";
  m_text += quoted(name);
  m_text += ":";
  m_text += json;
  return *this;
}

JsonObject& JsonObject::text(const std::string& name, const std::string& value) { return raw(name, quoted(value)); }
JsonObject& JsonObject::flag(const std::string& name, bool value) { return raw(name, value ? "true" : "false"); }
JsonObject& JsonObject::number(const std::string& name, long value) { return raw(name, std::to_string(value)); }

JsonArray& JsonArray::add(const std::string& json) {
  m_text += m_text.empty() ? "[" : ",";
  m_text += json;
  return *this;
}

std::string quoted(const std::string& text) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  return {buffer.GetString(), buffer.GetSize()};
}

std::string written(const JsonValue& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  value.Accept(writer);
  return {buffer.GetString(), buffer.GetSize()};
}

rapidjson::Document parsed(const std::string& text, const std::string& what) {
  rapidjson::Document document;
  document.Parse<rapidjson::kParseCommentsFlag | rapidjson::kParseTrailingCommasFlag>(text.data(), text.size());
  if (!document.HasParseError()) return document;
  const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(document.GetErrorOffset(), text.size()));
  refuse(what + ", line " + std::to_string(1 + std::count(text.begin(), end, '\n')) + ": " +
         rapidjson::GetParseError_En(document.GetParseError()));
}

const JsonValue* member(const JsonValue& object, const char* name) {
  if (!object.IsObject()) return nullptr;
  const auto found = object.FindMember(name);
  return found == object.MemberEnd() ? nullptr : &found->value;
}

std::string textMember(const JsonValue& object, const char* name, const std::string& otherwise) {
  const JsonValue* value = member(object, name);
  if (value == nullptr) return otherwise;
  if (!value->IsString()) refuse(std::string("'") + name + "' has to be a text");
  return stringOf(*value);
}

double numberMember(const JsonValue& object, const char* name, double otherwise) {
  const JsonValue* value = member(object, name);
  if (value == nullptr) return otherwise;
  if (!value->IsNumber() || value->GetDouble() < 0)
    refuse(std::string("'") + name + "' has to be a number, not below 0");
  return value->GetDouble();
}

bool flagMember(const JsonValue& object, const char* name, bool otherwise) {
  const JsonValue* value = member(object, name);
  if (value == nullptr) return otherwise;
  if (!value->IsBool()) refuse(std::string("'") + name + "' has to be true or false");
  return value->GetBool();
}

JsonValue* valueAt(JsonValue& root, const std::string& path) {
  JsonValue* value = &root;
  for (size_t start = 0; value != nullptr && start < path.size();) {
    const size_t end = std::min(path.find('.', start), path.size());
    value = child(*value, path.substr(start, end - start));
    start = end + 1;
  }
  return value;
}

bool removeAt(JsonValue& root, const std::string& path) {
  const auto [way, name] = split(path);
  JsonValue* parent = valueAt(root, way);
  if (parent == nullptr || child(*parent, name) == nullptr) return false;
  if (parent->IsArray()) {
    parent->Erase(parent->Begin() + std::stol(name));
  } else {
    parent->EraseMember(name.c_str());
  }
  return true;
}

bool setAt(rapidjson::Document& root, const std::string& path, const JsonValue& value) {
  const auto [way, name] = split(path);
  JsonValue* parent = valueAt(root, way);
  if (parent == nullptr) return false;
  JsonValue copy(value, root.GetAllocator());
  if (JsonValue* there = child(*parent, name)) {
    *there = copy;
    return true;
  }
  if (!parent->IsObject()) return false;
  JsonValue key(name.data(), static_cast<rapidjson::SizeType>(name.size()), root.GetAllocator());
  parent->AddMember(key, copy, root.GetAllocator());
  return true;
}

}  // namespace ferrolab
