// What is read of a computer object.
#pragma once

namespace lumo {

class ComputerObjectHelper {
 public:
  // Both end with a null pointer and live for ever.
  static const char* const* getAttributes();
  static const char* const* getComputerAttributes() { return getAttributes(); }
};

}  // namespace lumo
