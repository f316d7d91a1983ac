// --set, --delete and --list.
#include <vector>

#include "basalt/kerberos/kerberos_names.h"
#include "basalt/kerberos/protected_credential.h"
#include "base/include/exceptions.h"
#include "base/include/printable.h"
#include "base/include/properties.h"
#include "base/include/string_helpers.h"
#include "cli/cli_common.h"
#include "cli/cli_ferrogate.h"
#include "cli/cli_ferrogate_audit.h"

namespace {

bool namesNoSetting(const CommandOptions& record) {
  return !record.clearServer && !record.clearAuthRequired && !record.clearAuthType && record.server.empty() &&
         record.authRequired.empty() && record.authType.empty();
}

// The credential's part of --set: whose it is, its password, its file.
int setCredential(CommandOptions& record) {
  if (record.username.empty()) {
    if (namesNoSetting(record)) {
      FERRO_REPORT(lumo::level::Error, "Must provide either of --username, --machine, --server or --authreq option.\n");
      return result::Usage;
    }
    if (record.password.empty()) return result::Success;
    record.username = DEFAULT_USER;
    FERRO_NOTE(record.verbose, VS("Username is set to '%s' as default", DEFAULT_USER));
  } else if (record.username != MACHINE_MARKER && record.password.empty() && !promptPassword(record)) {
    return result::SetCredentialFailed;
  }
  return storeCredential(record);
}

// Settings of the proxy that this run changes, with what the record of it says.
class Changes {
 public:
  explicit Changes(lumo::Properties& settings) : m_settings(settings) {}

  void apply(const char* name, bool clear, const std::string& value) {
    const std::string before = shown(name);
    if (clear) {
      m_settings.eraseProperty(name);
    } else if (!value.empty()) {
      m_settings.setProperty(name, value);
    }
    if (const std::string after = shown(name); after != before) {
      m_texts.push_back(std::string(name) + " from " + before + " to " + after);
    }
  }
  // Once they are written.
  void record() const {
    for (const std::string& text : m_texts) audit::changed(text);
  }

 private:
  std::string shown(const char* name) const {
    const std::string value = m_settings.getProperty(name);
    return value.empty() ? "none" : audit::quoted(value);
  }

  lumo::Properties& m_settings;
  std::vector<std::string> m_texts;
};

}  // namespace

int handleSetCommand(CommandOptions& record) {
  if (const int code = setCredential(record); code != result::Success) return code;
  lumo::Properties& settings = lumo::Props(false, false);
  Changes changes(settings);
  changes.apply(lumo::PN::CLOUD_PROXY_SERVER, record.clearServer, record.server);
  changes.apply(lumo::PN::CLOUD_PROXY_AUTH_REQUIRED, record.clearAuthRequired, record.authRequired);
  if (record.username == MACHINE_MARKER) {
    record.authType = "negotiate";
    FERRO_NOTE(record.verbose, VS("Using machine credential, set %s to 'negotiate'.", lumo::PN::CLOUD_PROXY_AUTH_TYPE));
  }
  changes.apply(lumo::PN::CLOUD_PROXY_AUTH_TYPE, record.clearAuthType, record.authType);
  settings.saveProperty(lumo::path::CONFIGURATION);
  changes.record();
  FERRO_REPORT(lumo::level::Debug,
               "Set the HTTP Proxy configuration successfully.\n"
               "You may want to run ferrokick to make the new configuration effective.");
  return result::Success;
}

int handleDeleteCommand(CommandOptions& record) {
  try {
    lumo::ProtectedCredential credential(lumo::PROXY_CREDENTIAL);
    const std::string before = storedUser();
    credential.cleanup();
    if (before != NO_USER) audit::changed("credential user from " + before + " to " + NO_USER);
    return result::Success;
  } catch (const LUMOException& failure) {
    FERRO_NOTE(record.verbose, lumo::printable(failure.what()) + ".");
    return result::ClearCredentialFailed;
  }
}

std::string encTypeText(int encType) { return krb5EncTypeName(encType).value_or(VS("0x%04x", encType)); }

int handleListCommand(CommandOptions& record) {
  const auto setting = [](const char* name, const char* whenMissing) {
    return lumo::printable(lumo::Props(false, false).getProperty(name, whenMissing));
  };
  printOut("Proxy Server: " + setting(lumo::PN::CLOUD_PROXY_SERVER, "") + "\n" +
           "Proxy Auth Required: " + setting(lumo::PN::CLOUD_PROXY_AUTH_REQUIRED, "false") + "\n" +
           "Proxy Auth Type: " + lower(setting(lumo::PN::CLOUD_PROXY_AUTH_TYPE, "AnyAuth")) + "\n");
  if (const int code = getCredential(record, CredentialUser | CredentialKey); code != result::Success) return code;
  if (record.username == MACHINE_MARKER) {
    printOut("Proxy Account: Machine Account\n");
    return result::Success;
  }
  printOut("Proxy Account: " + lumo::printable(record.username) + "\n" +
           VS("Credential Encrypted with Key Version: %d\n", record.keyVersion));
  printOut("Credential Encryption Type: " + encTypeText(record.encType) + "\n");
  return result::Success;
}
