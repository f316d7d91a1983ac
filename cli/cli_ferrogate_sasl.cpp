// Which plug-ins of Cyrus SASL the tool loads. A choice of the process, so not of the libraries: an agent may have use
// for any of them.
#include <sasl/sasl.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <new>
#include <string_view>

#include "cli/cli_ferrogate.h"

namespace {

// What Cyrus SASL ships for other mechanisms than GSSAPI, the only one by which the tool signs in. A plug-in that is
// not named here is loaded as ever.
constexpr std::array<std::string_view, 14> OF_NO_USE{"anonymous", "crammd5", "digestmd5", "gs2",     "ldapdb",
                                                     "login",     "ntlm",    "otp",       "passdss", "plain",
                                                     "sasldb",    "scram",   "sql",       "srp"};

int judgeFile(void*, const char* file, sasl_verify_type_t type) {
  return type == SASL_VRFY_PLUGIN && file != nullptr && !isSaslPluginOfUse(file) ? SASL_CONTINUE : SASL_OK;
}

void* newMutex() { return new (std::nothrow) std::mutex; }
int lockMutex(void* mutex) {
  static_cast<std::mutex*>(mutex)->lock();
  return SASL_OK;
}
int unlockMutex(void* mutex) {
  static_cast<std::mutex*>(mutex)->unlock();
  return SASL_OK;
}
void deleteMutex(void* mutex) { delete static_cast<std::mutex*>(mutex); }

}  // namespace

bool isSaslPluginOfUse(std::string_view path) {
  std::string_view name = path.substr(path.rfind('/') + 1);
  name = name.substr(0, name.find('.'));
  if (name.substr(0, 3) != "lib") return true;
  return std::find(OF_NO_USE.begin(), OF_NO_USE.end(), name.substr(3)) == OF_NO_USE.end();
}

void restrictSaslPlugins() {
  // The library keeps the table. Its first initialisation counts; that of the LDAP library is then only one more user.
  const auto judge = reinterpret_cast<int (*)()>(reinterpret_cast<void (*)()>(&judgeFile));
  static const sasl_callback_t callbacks[] = {{SASL_CB_VERIFYFILE, judge, nullptr},
                                              {SASL_CB_LIST_END, nullptr, nullptr}};
  // As the LDAP library does; behind the initialisation it would be too late.
  sasl_set_mutex(newMutex, lockMutex, unlockMutex, deleteMutex);
  sasl_client_init(callbacks);  // when it fails, the LDAP library meets the same failure and tells it
}
