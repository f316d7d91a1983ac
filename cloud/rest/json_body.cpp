#include "cloud/rest/json_body.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>

#include "base/include/wipe.h"

namespace {

// What a writer writes to: first to learn the length, so that the text never grows and leaves a piece behind.
struct LengthStream {
  using Ch = char;
  void Put(char) { ++length; }
  void Flush() {}

  std::size_t length = 0;
};

struct TextStream {
  using Ch = char;
  void Put(char c) { text += c; }
  void Flush() {}

  std::string& text;
};

}  // namespace

std::string jsonOf(const std::list<std::pair<std::string, std::string>>& pairs) {
  const auto length = [](const std::string& text) { return static_cast<rapidjson::SizeType>(text.size()); };
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  writer.StartObject();
  for (const auto& [name, value] : pairs) {
    writer.Key(name.data(), length(name));
    writer.String(value.data(), length(value));
  }
  writer.EndObject();
  return {text.GetString(), text.GetSize()};
}

JsonBody::Member::~Member() { wipe(plain); }

std::string_view JsonBody::Member::value() const {
  if (locked.empty()) return plain;
  return {locked.data(), locked.size()};
}

JsonBody::~JsonBody() { wipe(m_text); }

// The member of that name, a new one where there is none.
JsonBody::Member& JsonBody::emptied(const std::string& name) {
  auto found =
      std::find_if(m_members.begin(), m_members.end(), [&name](const Member& member) { return member.name == name; });
  if (found == m_members.end()) found = m_members.emplace(found, name);
  wipe(found->plain);
  found->locked.clear();
  return *found;
}

JsonBody& JsonBody::set(const std::string& name, const lumo::Shredder2& value) {
  emptied(name).locked = value;
  return *this;
}

JsonBody& JsonBody::set(const std::string& name, const std::string& value) {
  emptied(name).plain = value;
  return *this;
}

void JsonBody::remove(const std::string& name) {
  m_members.remove_if([&name](const Member& member) { return member.name == name; });
}

template <class Stream>
void JsonBody::write(Stream& stream) const {
  rapidjson::Writer<Stream> writer(stream);
  writer.StartObject();
  for (const Member& member : m_members) {
    writer.Key(member.name.data(), static_cast<rapidjson::SizeType>(member.name.size()));
    const std::string_view value = member.value();
    writer.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
  }
  writer.EndObject();
}

const std::string& JsonBody::text() {
  LengthStream measured;
  write(measured);
  wipe(m_text);
  m_text.reserve(measured.length);
  TextStream stream{m_text};
  write(stream);
  return m_text;
}
