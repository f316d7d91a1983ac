// The body of a request: a JSON object of strings. Answers and passwords pass through here, so all of it is wiped.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "base/include/shredder.h"

// Members stand in the order in which their names came first. One thread at a time.
class JsonBody {
 public:
  using Member = std::pair<std::string, lumo::Shredder2>;

  JsonBody() = default;
  ~JsonBody();
  JsonBody(const JsonBody&) = delete;
  JsonBody& operator=(const JsonBody&) = delete;

  // Gives the member of that name its value; a new one stands last. Returns this.
  JsonBody& set(const std::string& name, const lumo::Shredder2& value);
  JsonBody& set(const std::string& name, const std::string& value) { return set(name, lumo::Shredder2(value)); }
  // One that is not there is no failure.
  void remove(const std::string& name);
  // Compact JSON text, valid until this object changes.
  const std::string& text();

 private:
  void wipeText() noexcept;

  std::vector<Member> m_members;
  std::string m_text;
};
