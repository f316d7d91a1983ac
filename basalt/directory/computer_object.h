// What is read of a computer object.
#pragma once

namespace lumo {

class ComputerObjectHelper {
 public:
  // Common and distinguished name, DNS host name, class, category, account control and account name. Both end with a
  // null pointer and live for ever. Any thread.
  static const char* const* getAttributes();
  static const char* const* getComputerAttributes() { return getAttributes(); }
};

}  // namespace lumo
