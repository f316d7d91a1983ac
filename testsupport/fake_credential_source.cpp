#include "testsupport/fake_credential_source.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "basalt/process/clock.h"
#include "base/include/kerb_wrap.h"

namespace testsupport {
namespace {

void require(krb5_error_code code, const char* what) {
  if (code != 0) throw std::runtime_error(std::string(what) + " failed with " + std::to_string(code));
}

}  // namespace

krb5_creds handMadeTicket(krb5_context context, krb5_const_principal client, int seconds) {
  krb5_creds creds{};
  require(krb5_copy_principal(context, client, &creds.client), "krb5_copy_principal");
  const krb5_data& realm = client->realm;
  require(krb5_build_principal_ext(context, &creds.server, realm.length, realm.data, KRB5_TGS_NAME_SIZE, KRB5_TGS_NAME,
                                   realm.length, realm.data, 0),
          "krb5_build_principal_ext");
  krb5_keyblock* key = nullptr;
  require(krb5_init_keyblock(context, ENCTYPE_AES256_CTS_HMAC_SHA1_96, 32, &key), "krb5_init_keyblock");
  std::memset(key->contents, 0, key->length);
  creds.keyblock = *key;
  std::free(key);
  const auto now = std::chrono::system_clock::to_time_t(lumo::Clock::getInstance().now());
  creds.times.authtime = static_cast<krb5_timestamp>(now);
  creds.times.starttime = creds.times.authtime;
  creds.times.endtime = static_cast<krb5_timestamp>(now + seconds);
  char ticket[] = "no ticket";
  krb5_data* bytes = nullptr;
  krb5_data source{};
  source.data = ticket;
  source.length = sizeof ticket;
  require(krb5_copy_data(context, &source, &bytes), "krb5_copy_data");
  creds.ticket = *bytes;
  std::free(bytes);
  return creds;
}

krb5_error_code FakeCredentialSource::ticketByPassword(krb5_context context, krb5_principal principal,
                                                       const lumo::Shredder& password, const std::string& realm,
                                                       int lifetime, krb5_creds* creds, std::string* text) {
  char* name = nullptr;
  require(krb5_unparse_name(context, principal, &name), "krb5_unparse_name");
  requests.push_back({name, std::string(password.c_str(), password.size()), realm, lifetime});
  krb5_free_unparsed_name(context, name);
  if (result != 0) {
    if (text != nullptr) *text = errorText;
    return result;
  }
  *creds = handMadeTicket(context, principal, 10 * 3600);
  return 0;
}

std::string FakeCredentialSource::machineCache() {
  ++machineCacheCalls;
  if (machineCacheName.empty()) {
    throw KerberosException(static_cast<int>(KRB5_KT_NOTFOUND), machineError.c_str(), __FILE__, __LINE__);
  }
  return machineCacheName;
}

}  // namespace testsupport
