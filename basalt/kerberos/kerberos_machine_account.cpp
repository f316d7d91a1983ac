#include "basalt/kerberos/kerberos_machine_account.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <tuple>

#include "basalt/kerberos/kerberos_handles.h"
#include "basalt/logging/first_time.h"
#include "basalt/settings/settings_store.h"
#include "base/include/exceptions.h"
#include "base/include/logger.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"

namespace lumo {
namespace {

// A computer account's name is cut to that many characters (NetBIOS).
constexpr std::size_t LONGEST_ACCOUNT = 15;

bool isCalledLike(const std::string& principal, const std::string& host) {
  const std::string account = principal.substr(0, principal.find_last_of('@'));
  const std::string label = host.substr(0, host.find('.'));
  if (label.empty()) return false;
  return strcasecmp(account.c_str(), (label + "$").c_str()) == 0 ||
         strcasecmp(account.c_str(), (label.substr(0, LONGEST_ACCOUNT) + "$").c_str()) == 0;
}

bool isInRealm(const std::string& principal, const std::string& realm) {
  return !realm.empty() && principal.substr(principal.find_last_of('@') + 1) == realm;
}

using Rank = std::tuple<bool, bool, int, unsigned>;

Rank rankOf(const MachineKey& key, const AccountHints& hints) {
  return {isCalledLike(key.principal(), hints.host), isInRealm(key.principal(), hints.realm), key.version(),
          static_cast<unsigned>(key.writtenAt())};
}

std::string hostName() {
  char name[256] = {};
  return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

// Not by way of KerberosContext: its default realm may be that of the account which is looked for here.
std::string defaultRealm() {
  krb5_context context = nullptr;
  if (krb5_init_context(&context) == 0) {
    std::string realm = realmOfProfile(context);
    krb5_free_context(context);
    if (!realm.empty()) return realm;
  }
  try {
    return upper(storedDomainName());
  } catch (const LUMOException&) {
    return std::string();
  }
}

bool areOfOneAccount(const std::vector<MachineKey>& keys) {
  return std::all_of(keys.begin(), keys.end(),
                     [&](const MachineKey& key) { return key.principal() == keys.front().principal(); });
}

void report(const MachineKey& chosen, const AccountHints& hints) {
  const std::string text = "The keytab holds keys of several machine accounts; " + printable(chosen.principal(), 512) +
                           " is used (host name '" + printable(hints.host, 256) + "', default realm '" +
                           printable(hints.realm, 256) + "')";
  if (isFirstTime(text)) LUMO_LOG(getLogger("base.kerberos.wrap", false), lumo::level::Warn, "%s", text.c_str());
}

}  // namespace

const MachineKey* machineKey(const std::vector<MachineKey>& keys, const AccountHints& hints) {
  const auto best = std::max_element(keys.begin(), keys.end(), [&](const MachineKey& one, const MachineKey& other) {
    return rankOf(one, hints) < rankOf(other, hints);
  });
  return best == keys.end() ? nullptr : &*best;
}

const MachineKey* machineKey(const std::vector<MachineKey>& keys) {
  if (areOfOneAccount(keys)) return machineKey(keys, {});
  const AccountHints hints{hostName(), defaultRealm()};
  const MachineKey* chosen = machineKey(keys, hints);
  report(*chosen, hints);
  return chosen;
}

}  // namespace lumo
