// The agent's own settings ("kset"): one file per key below /var/morvand/kset/, root only, replaced atomically.
#pragma once

#include <string>

inline constexpr char SETTING_DOMAIN_NAME[] = "domain.name";
inline constexpr char SETTING_HOSTSID[] = "host.sid";
inline constexpr char SETTING_CLOUD_CONNECTORS[] = "cloud.connectors";

namespace lumo {

// The value of a setting. A setting that is not there gives the empty string, or throws IOException when `required`.
// `refresh` is accepted for the callers' sake: every call reads the file. SETTING_DOMAIN_NAME without a value falls
// back to the realm of the machine keytab in lower case. Throws FileSecurityException for a file that others may write
// or read, and SystemException for one that cannot be read. Any thread.
std::string loadSetting(const std::string& name, bool required, bool refresh);

// The value of SETTING_DOMAIN_NAME as the store has it, without a look at the keytab; empty when there is none. Throws
// as loadSetting does. Any thread.
std::string storedDomainName();

// Every setting is for root alone.
enum class SettingAccess : int { Root = 1 };

// Replaces the value; the folders are made when needed. Throws SystemException, the old value then stays. The last
// three arguments are accepted for the callers' sake: every value is written at once, to the disk, with mode 0600. Any
// thread.
void saveSetting(const std::string& name, const std::string& value, SettingAccess access = SettingAccess::Root,
                 bool sync = true, bool create = true);

// The same as loadSetting(name, false, refresh), with a default for a setting that is not there or empty. Any thread.
std::string GetSetting(const std::string& name, const std::string& defaultValue, bool refresh = true);

}  // namespace lumo
