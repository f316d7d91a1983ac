// JSON of the simulator: text written member by member, and what is read from scripts, commands and bodies.
#pragma once

#include <rapidjson/document.h>

#include <string>

namespace ferrolab {

using JsonValue = rapidjson::Value;

// A JSON object as compact text, its members in the order of the calls.
class JsonObject {
 public:
  JsonObject& text(const std::string& name, const std::string& value);
  JsonObject& flag(const std::string& name, bool value);
  JsonObject& number(const std::string& name, long value);
  // `json` is JSON text.
  JsonObject& raw(const std::string& name, const std::string& json);
  std::string str() const { return m_text.empty() ? "{}" : m_text + "}"; }

 private:
  std::string m_text;
};

// The items of a list, each JSON text, as a JSON array.
class JsonArray {
 public:
  JsonArray& add(const std::string& json);
  std::string str() const { return m_text.empty() ? "[]" : m_text + "]"; }

 private:
  std::string m_text;
};

// The string as JSON text, with its quotes.
std::string quoted(const std::string& text);
// Compact text of a value.
std::string written(const JsonValue& value);
// Comments are allowed. Throws std::invalid_argument naming `what` and the place of the error.
rapidjson::Document parsed(const std::string& text, const std::string& what);

inline std::string stringOf(const JsonValue& value) { return {value.GetString(), value.GetStringLength()}; }
// The member of that name, null when there is none.
const JsonValue* member(const JsonValue& object, const char* name);
// A member that has to be of its type where it is there. Throw std::invalid_argument.
std::string textMember(const JsonValue& object, const char* name, const std::string& otherwise = {});
double numberMember(const JsonValue& object, const char* name, double otherwise);
bool flagMember(const JsonValue& object, const char* name, bool otherwise);

// The value at a path such as "Result.Challenges.0.Mechanisms", null when there is none.
JsonValue* valueAt(JsonValue& root, const std::string& path);
// Takes away what stands at the path; false when there is nothing.
bool removeAt(JsonValue& root, const std::string& path);
// Puts a copy of the value there; the last member is added where it is missing. False when the way does not exist.
bool setAt(rapidjson::Document& root, const std::string& path, const JsonValue& value);

}  // namespace ferrolab
