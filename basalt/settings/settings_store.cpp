#include "basalt/settings/settings_store.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <optional>

#include "basalt/files/file_security.h"
#include "basalt/files/posix_file.h"
#include "basalt/files/secure_file.h"
#include "basalt/files/state_folder.h"
#include "basalt/kerberos/kerberos_names.h"
#include "base/include/exceptions.h"
#include "base/include/parameter_names.h"
#include "base/include/string_helpers.h"

namespace lumo {
namespace {

// The largest value: the state of the connectors, one line for each.
constexpr std::size_t largestSetting = 16U << 20U;

std::string pathOf(const std::string& name) {
  constexpr char allowed[] = "abcdefghijklmnopqrstuvwxyz0123456789._-";
  if (name.empty() || name.front() == '.' || name.find_first_not_of(allowed) != std::string::npos) {
    LUMO_THROW(BadDataException, -1, "'%s' cannot be the name of a setting", name.c_str());
  }
  return path::SETTINGS_STORE + name;
}

// A value ends in a newline that is not its own, so that a person can write one with an editor.
std::optional<std::string> stored(const std::string& name) {
  const std::string where = pathOf(name);
  const FileDescriptor file(openChecked(where, FileSecrecy::Secret));
  if (!file) return std::nullopt;
  std::string value = readAll(file.get(), where, largestSetting);
  if (!value.empty() && value.back() == '\n') value.pop_back();
  return value;
}

std::string domainOfKeytab() {
  const std::optional<std::string> principal = machinePrincipal(path::MACHINE_KEYTAB);
  return principal ? lower(principal->substr(principal->find_last_of('@') + 1)) : std::string();
}

}  // namespace

std::string loadSetting(const std::string& name, bool required, bool /*refresh*/) {
  std::optional<std::string> value = stored(name);
  if (name == SETTING_DOMAIN_NAME && (!value || value->empty())) {
    const std::string domain = domainOfKeytab();
    if (!domain.empty()) value = domain;
  }
  if (!value && required) LUMO_THROW(IOException, -1, "The setting '%s' is not there", name.c_str());
  return value.value_or(std::string());
}

std::string storedDomainName() { return stored(SETTING_DOMAIN_NAME).value_or(std::string()); }

void saveSetting(const std::string& name, const std::string& value, SettingAccess, bool, bool) {
  const std::string where = pathOf(name);
  makeStateFolderFor(where);
  makeFolder(folderOf(path::SETTINGS_STORE), 0700);
  const std::string content = value + "\n";
  replaceFile(where, content.data(), content.size(), FileOwnerMode{geteuid(), getegid(), 0600});
}

std::string GetSetting(const std::string& name, const std::string& defaultValue, bool refresh) {
  const std::string value = loadSetting(name, false, refresh);
  return value.empty() ? defaultValue : value;
}

}  // namespace lumo
