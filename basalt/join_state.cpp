#include "basalt/join_state.h"

#include "basalt/settings_store.h"
#include "base/include/exceptions.h"

namespace lumo {

bool joined() {
  try {
    return !loadSetting(SETTING_DOMAIN_NAME, false, false).empty();
  } catch (const LUMOException&) {
    return false;
  }
}

}  // namespace lumo
