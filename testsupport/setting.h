// A setting of this process for the length of a scope.
#pragma once

#include <string>
#include <utility>

#include "base/include/properties.h"

namespace testsupport {

// The setting has that value from construction on; from destruction on there is none.
class Setting {
 public:
  Setting(std::string key, const std::string& value) : m_key(std::move(key)) { set(value); }
  ~Setting() { lumo::Props(false, true).eraseProperty(m_key); }
  Setting(const Setting&) = delete;
  Setting& operator=(const Setting&) = delete;

  void set(const std::string& value) { lumo::Props(false, true).setProperty(m_key, value); }

 private:
  const std::string m_key;
};

}  // namespace testsupport
