// The agent's own settings ("kset"): one file per key below /var/morvand/kset/, root only, replaced atomically.
#pragma once

#include <string>

inline constexpr char SETTING_DOMAIN_NAME[] = "domain.name";
inline constexpr char SETTING_HOSTSID[] = "host.sid";

namespace lumo {

// The value of a setting. A setting that is not there gives the empty string, or throws IOException when `required`.
// `refresh` is accepted for the callers' sake: every call reads the file. SETTING_DOMAIN_NAME without a value falls
// back to the realm of the machine keytab in lower case. Throws FileSecurityException for a file that others may write
// or read, and SystemException for one that cannot be read. Any thread.
std::string loadSetting(const std::string& name, bool required, bool refresh);

// Replaces the value; the folder is made when needed. Throws SystemException, the old value then stays.
void saveSetting(const std::string& name, const std::string& value);

// The same as loadSetting(name, false, false), with a default for a setting that is not there or empty.
std::string GetSetting(const std::string& name, const std::string& defaultValue);

}  // namespace lumo
