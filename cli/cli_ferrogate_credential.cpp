// The two doors of the proxy's credential file, the hidden command that shows it, and the prompt.
#include <cstdio>
#include <string_view>

#include "basalt/kerberos/protected_credential.h"
#include "basalt/process/prompt.h"
#include "base/include/exceptions.h"
#include "base/include/printable.h"
#include "cli/cli_common.h"
#include "cli/cli_ferrogate.h"
#include "cli/cli_ferrogate_audit.h"

namespace {

std::string shownUser(const std::string& user) {
  return user == MACHINE_MARKER ? "the machine account" : audit::quoted(user);
}

}  // namespace

int getCredential(CommandOptions& record, int mask) {
  try {
    lumo::ProtectedCredential credential(lumo::PROXY_CREDENTIAL);
    credential.loadFromFile(true);
    if (!credential.isLoaded()) return result::NoCredential;
    if ((mask & CredentialUser) != 0) record.username = credential.getUser();
    if ((mask & CredentialPassword) != 0) credential.getSecret(record.password);
    if ((mask & CredentialKey) != 0) {
      record.keyVersion = credential.getKeyVersion();
      record.encType = credential.getEncType();
    }
    return result::Success;
  } catch (const lumo::FileSecurityException& failure) {
    FERRO_NOTE(record.verbose, "A file security problem: " + lumo::printable(failure.what()));
    return result::NoCredential;
  } catch (const LUMOException& failure) {
    FERRO_NOTE(record.verbose, lumo::printable(failure.what()) + ".");
    return result::GetCredentialFailed;
  }
}

std::string storedUser() try {
  lumo::ProtectedCredential credential(lumo::PROXY_CREDENTIAL);
  credential.loadFromFile(true);
  return credential.isLoaded() ? shownUser(credential.getUser()) : NO_USER;
} catch (const LUMOException&) {
  return "an unreadable file";
}

int storeCredential(const CommandOptions& record) {
  try {
    lumo::ProtectedCredential credential(lumo::PROXY_CREDENTIAL);
    const std::string before = storedUser();
    credential.setCred(record.username, record.password);
    credential.storeToFile();
    const bool isMachine = record.username == MACHINE_MARKER;
    audit::changed("credential user from " + before + " to " + shownUser(record.username) +
                   (isMachine ? "" : ", password changed"));
    return result::Success;
  } catch (const LUMOException& failure) {
    FERRO_NOTE(record.verbose, lumo::printable(failure.what()) + ".");
    return result::SetCredentialFailed;
  }
}

bool promptPassword(CommandOptions& record) {
  std::fflush(stdout);
  const char* const typed = mvd_getpass("Password:");
  if (typed == nullptr) {
    // An empty password in place of the missing one would be stored or sent without anybody having wanted it.
    FERRO_REPORT(lumo::level::Error,
                 "Cannot read the password from the terminal. Supply it with the --password option.\n");
    return false;
  }
  record.password = lumo::Shredder2(typed);
  mvd_wipepass();
  return true;
}

int handleCredentialCommand(int ch) {
  if (ch != 'u' && ch != 'p') return result::Usage;
  CommandOptions record;
  const int code = getCredential(record, ch == 'p' ? CredentialPassword : CredentialUser);
  if (code != result::Success) return code;
  const std::string_view text =
      ch == 'p' ? std::string_view(record.password.data(), record.password.size()) : std::string_view(record.username);
  // The callers of this command read the bare text from standard error: it is data, and nothing in it is escaped.
  std::fwrite(text.data(), 1, text.size(), stderr);
  return result::Success;
}
