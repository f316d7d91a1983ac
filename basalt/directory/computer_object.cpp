#include "basalt/directory/computer_object.h"

#include "basalt/directory/directory_object.h"

namespace lumo {

const char* const* ComputerObjectHelper::getAttributes() {
  // A catalogue holds all of these.
  static constexpr const char* ATTRIBUTES[] = {
      AD_CN, AD_DN, AD_DNS_NAME, AD_OBJECT_CLASS, AD_OBJECT_CATEGORY, AD_USER_ACCNT_CONTROL, "sAMAccountName", nullptr,
  };
  return ATTRIBUTES;
}

}  // namespace lumo
