// The body of a request: a JSON object of strings. Answers and passwords pass through here, so all of it is wiped.
#pragma once

#include <list>
#include <string>
#include <string_view>
#include <utility>

#include "base/include/shredder.h"

// A JSON object of strings as compact text, one member for each pair, also for a name that comes twice.
std::string jsonOf(const std::list<std::pair<std::string, std::string>>& pairs);

// Members stand in the order in which their names came first. One thread at a time.
class JsonBody {
 public:
  JsonBody() = default;
  ~JsonBody();
  JsonBody(const JsonBody&) = delete;
  JsonBody& operator=(const JsonBody&) = delete;

  // Gives the member of that name its value; a new one stands last. A locked value is shared, not copied. Returns this.
  JsonBody& set(const std::string& name, const lumo::Shredder2& value);
  JsonBody& set(const std::string& name, const std::string& value);
  // One that is not there is no failure.
  void remove(const std::string& name);
  // Compact JSON text, valid until this object changes.
  const std::string& text();

 private:
  // Its value is one of the two. What came as an ordinary text stays one: locked memory costs ten system calls a piece.
  struct Member {
    explicit Member(std::string itsName) : name(std::move(itsName)) {}
    ~Member();
    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;

    std::string_view value() const;

    std::string name;
    std::string plain;
    lumo::Shredder2 locked;
  };

  Member& emptied(const std::string& name);
  template <class Stream>
  void write(Stream& stream) const;

  std::list<Member> m_members;  // none is ever moved, which would leave a short text behind
  std::string m_text;
};
