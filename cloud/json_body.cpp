#include "cloud/json_body.h"

#include <rapidjson/writer.h>
#include <strings.h>

#include <algorithm>

namespace {

// What a writer writes to, in memory that is wiped.
struct LockedStream {
  using Ch = char;
  void Put(char c) { text += c; }
  void Flush() {}

  lumo::Shredder2 text;
};

auto named(const std::string& name) {
  return [&name](const JsonBody::Member& member) { return member.first == name; };
}

}  // namespace

JsonBody::~JsonBody() { wipeText(); }

void JsonBody::wipeText() noexcept {
  if (!m_text.empty()) explicit_bzero(&m_text[0], m_text.size());
  m_text.clear();
}

JsonBody& JsonBody::set(const std::string& name, const lumo::Shredder2& value) {
  const auto found = std::find_if(m_members.begin(), m_members.end(), named(name));
  if (found != m_members.end()) {
    found->second = value;
  } else {
    m_members.emplace_back(name, value);
  }
  return *this;
}

void JsonBody::remove(const std::string& name) {
  m_members.erase(std::remove_if(m_members.begin(), m_members.end(), named(name)), m_members.end());
}

const std::string& JsonBody::text() {
  LockedStream stream;
  rapidjson::Writer<LockedStream> writer(stream);
  writer.StartObject();
  for (const auto& [name, value] : m_members) {
    writer.Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
    writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
  }
  writer.EndObject();
  wipeText();
  m_text.assign(stream.text.data(), stream.text.size());
  return m_text;
}
