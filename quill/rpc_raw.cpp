#include "quill/rpc_raw.h"

#include <rapidjson/reader.h>

#include <string_view>

#include "base/include/wipe.h"

namespace lumo::rpc {
namespace {

// Iterative: the depth is the peer's choice. In place: no string is copied to memory that nobody wipes.
constexpr unsigned READ =
    rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag | rapidjson::kParseInsituFlag;

// A type of its own, since the reader works on copies of rapidjson's: this one always knows where it stands.
struct Place : rapidjson::InsituStringStream {
  using rapidjson::InsituStringStream::InsituStringStream;
};

// Notes where the value of the first member of that name of the outermost object stands.
class MemberFinder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, MemberFinder> {
 public:
  MemberFinder(Place& place, std::string_view name) : m_place(place), m_name(name) {}

  bool Default() { return ended(0); }  // what has no other operation here: texts, numbers, true, false, null
  bool Key(const char* key, rapidjson::SizeType length, bool) {
    if (m_depth == 1 && begin == 0 && std::string_view(key, length) == m_name) begin = m_place.Tell();
    return true;
  }
  bool StartObject() { return begun(); }
  bool StartArray() { return begun(); }
  // They are told before their bracket is taken.
  bool EndObject(rapidjson::SizeType) { return closed(); }
  bool EndArray(rapidjson::SizeType) { return closed(); }

  std::size_t begin = 0;  // behind the name; 0: there is none of that name
  std::size_t end = 0;

 private:
  bool begun() {
    ++m_depth;
    return true;
  }
  bool closed() {
    --m_depth;
    return ended(1);
  }
  bool ended(std::size_t bracket) {
    if (m_depth == 1 && begin != 0 && end == 0) end = m_place.Tell() + bracket;
    return true;
  }

  Place& m_place;
  std::string_view m_name;
  std::size_t m_depth = 0;
};

template <typename Handler>
bool isRead(Place& place, Handler& handler) {
  rapidjson::Reader reader;
  return !reader.Parse<READ>(place, handler).IsError();
}

}  // namespace

bool isJson(const std::string& text) {
  if (text.find('\0') != std::string::npos) return false;
  std::string copy = text;
  const WipeAtEnd wiped(copy);
  Place place(copy.data());
  rapidjson::BaseReaderHandler<> ignoring;
  return isRead(place, ignoring);
}

std::optional<std::string> memberText(const std::string& object, const char* name) {
  std::string copy = object;
  const WipeAtEnd wiped(copy);
  Place place(copy.data());
  MemberFinder found(place, name);
  if (!isRead(place, found) || found.end == 0) return std::nullopt;
  const std::size_t value = object.find_first_not_of(" \t\r\n", object.find(':', found.begin) + 1);
  return object.substr(value, found.end - value);
}

}  // namespace lumo::rpc
