#include "basalt/settings/join_state.h"

#include "basalt/settings/settings_store.h"
#include "base/include/exceptions.h"
#include "base/include/logger.h"

namespace lumo {

bool joined() {
  try {
    return !loadSetting(SETTING_DOMAIN_NAME, false, false).empty();
  } catch (const LUMOException& failure) {
    LUMO_LOG(getLogger("base.settings", false), lumo::level::Error, "Whether this machine is joined cannot be told: %s",
             failure.what());
    return false;
  }
}

}  // namespace lumo
