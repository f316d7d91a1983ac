#include "cloud/rest/json_reply.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <vector>

#include "base/include/printable.h"
#include "cloud/include/cloud_exceptions.h"
#include "cloud/rest/json_reader.h"

namespace lumo {
namespace {

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

// An object or an array that is being written, and how much of it is.
struct Open {
  const rapidjson::Value* value;
  rapidjson::SizeType next = 0;
};

// Writes a value that holds no others; of one that does, the beginning.
void begin(const rapidjson::Value& value, JsonWriter& writer, std::vector<Open>& open) {
  if (value.IsObject()) {
    writer.StartObject();
    open.push_back({&value});
  } else if (value.IsArray()) {
    writer.StartArray();
    open.push_back({&value});
  } else {
    value.Accept(writer);
  }
}

// Writes the next part of the innermost, or its end.
void goOn(JsonWriter& writer, std::vector<Open>& open) {
  const rapidjson::Value& value = *open.back().value;
  const rapidjson::SizeType at = open.back().next++;
  if (value.IsObject() && at < value.MemberCount()) {
    const auto& member = value.MemberBegin()[at];
    writer.Key(member.name.GetString(), member.name.GetStringLength());
    begin(member.value, writer, open);
  } else if (value.IsArray() && at < value.Size()) {
    begin(value[at], writer, open);
  } else {
    if (value.IsObject()) {
      writer.EndObject();
    } else {
      writer.EndArray();
    }
    open.pop_back();
  }
}

}  // namespace

const rapidjson::Value& jsonMember(const rapidjson::Value& object, std::string_view key) {
  static const rapidjson::Value missing;
  if (!object.IsObject()) return missing;
  for (const auto& one : object.GetObject()) {
    if (key == std::string_view(one.name.GetString(), one.name.GetStringLength())) return one.value;
  }
  return missing;
}

void getJsonString(const rapidjson::Value& object, std::string_view key, std::string& out) {
  const rapidjson::Value& value = jsonMember(object, key);
  if (!value.IsString()) {
    LUMO_THROW(CloudException, -1, "Errors in parsing result from Json: '%s' does NOT exist",
               lumo::printable(key).c_str());
  }
  out.assign(value.GetString(), value.GetStringLength());
}

void getJsonStringOptional(const rapidjson::Value& object, std::string_view key, std::string& out) {
  const rapidjson::Value& value = jsonMember(object, key);
  if (value.IsString()) {
    out.assign(value.GetString(), value.GetStringLength());
  } else {
    out.clear();
  }
}

// A new one each time: a document only gives its memory back as a whole.
void parseJson(rapidjson::Document& out, std::string_view text) { out = readJson(text); }

void jsonToString(std::string& out, const rapidjson::Value& object) {
  rapidjson::StringBuffer buffer;
  JsonWriter writer(buffer);
  std::vector<Open> open;
  begin(object, writer, open);
  while (!open.empty()) goOn(writer, open);
  out.assign(buffer.GetString(), buffer.GetSize());
}

int readReply(const boost::shared_ptr<Logger>& log, const std::string& body, rapidjson::Document& document) {
  LUMO_LOG(log, lumo::level::Trace, "HTTP response: %s", body.c_str());
  parseJson(document, body);
  if (jsonMember(document, "success").IsTrue()) return 1;
  const auto read = [&document](const char* key) {
    std::string value;
    getJsonStringOptional(document, key, value);
    return value;
  };
  LUMO_LOG(log, lumo::level::Debug,
           "processResult returns false, error information from cloud errorCode = %s, errorId = %s, message = %s, "
           "messageId = %s.",
           read("ErrorCode").c_str(), read("ErrorID").c_str(), read("Message").c_str(), read("MessageID").c_str());
  return 0;
}

}  // namespace lumo
