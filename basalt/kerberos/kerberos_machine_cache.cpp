#include "basalt/kerberos/kerberos_machine_cache.h"

#include <fcntl.h>
#include <krb5.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "basalt/files/posix_file.h"
#include "basalt/files/secure_file.h"
#include "basalt/files/state_folder.h"
#include "basalt/kerberos/kerberos_handles.h"
#include "basalt/kerberos/kerberos_keytab.h"
#include "basalt/kerberos/kerberos_machine_account.h"
#include "basalt/kerberos/kerberos_request.h"
#include "basalt/process/clock.h"
#include "base/include/kerb_wrap.h"
#include "base/include/logger.h"
#include "base/include/printable.h"
#include "base/include/shredder.h"

namespace lumo {
namespace {

using std::chrono::seconds;

// Of the KDC's words in one text, in bytes.
constexpr std::size_t LONGEST_WORDS = 256;

// Nobody but this user may have written or read the file.
bool isOurs(const std::string& path) {
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status {};
  return file && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
         (status.st_mode & 077U) == 0;
}

seconds sinceEpoch(krb5_timestamp time) { return seconds(static_cast<unsigned>(time)); }

// How long the cache's ticket-granting ticket for the account is still good; 0 when there is none.
seconds lifeLeft(krb5_context context, const std::string& path, const std::string& account) {
  if (!isOurs(path)) return seconds(0);
  KrbCCache cache(context);
  KrbPrincipal owner(context);
  if (krb5_cc_resolve(context, ("FILE:" + path).c_str(), cache.out()) != 0 ||
      krb5_cc_get_principal(context, cache.get(), owner.out()) != 0 || principalText(context, owner.get()) != account) {
    return seconds(0);
  }
  const krb5_data& realm = owner.get()->realm;
  KrbPrincipal ticketGranter(context);
  requireKrb(context,
             krb5_build_principal_ext(context, ticketGranter.out(), realm.length, realm.data, KRB5_TGS_NAME_SIZE,
                                      KRB5_TGS_NAME, realm.length, realm.data, 0),
             "krb5_build_principal_ext");
  krb5_creds wanted{};
  wanted.client = owner.get();
  wanted.server = ticketGranter.get();
  KrbCreds found(context);
  if (krb5_cc_retrieve_cred(context, cache.get(), 0, &wanted, found.out()) != 0) return seconds(0);
  const seconds now = std::chrono::duration_cast<seconds>(Clock::getInstance().now().time_since_epoch());
  // A ticket from the future is one from before the clock was set back: a KDC would not take it.
  if (sinceEpoch(found->times.authtime) > now + std::chrono::minutes(5)) return seconds(0);
  return std::max(sinceEpoch(found->times.endtime) - now, seconds(0));
}

// What a keytab request takes along to its thread.
struct KeytabRequest {
  std::string account;
  std::string keytabPath;

  krb5_error_code operator()(krb5_context context, krb5_creds* creds) const {
    KrbPrincipal client(context);
    KrbKeytab keytab(context);
    krb5_error_code rc = krb5_parse_name(context, account.c_str(), client.out());
    if (rc == 0) rc = krb5_kt_resolve(context, ("FILE:" + keytabPath).c_str(), keytab.out());
    if (rc != 0) return rc;
    return krb5_get_init_creds_keytab(context, creds, client.get(), keytab.get(), 0, nullptr, nullptr);
  }
};

// What an administrator can do about a refused request.
const char* adviceFor(krb5_error_code code) {
  static const struct {
    krb5_error_code code;
    const char* advice;
  } TABLE[] = {
      {static_cast<krb5_error_code>(KRB5KDC_ERR_PREAUTH_FAILED), "; join the machine again"},
      {static_cast<krb5_error_code>(KRB5KRB_AP_ERR_BAD_INTEGRITY), "; join the machine again"},
      {static_cast<krb5_error_code>(KRB5KDC_ERR_C_PRINCIPAL_UNKNOWN), "; join the machine again"},
      {static_cast<krb5_error_code>(KRB5KDC_ERR_KEY_EXP), "; join the machine again"},
      {static_cast<krb5_error_code>(KRB5KDC_ERR_CLIENT_REVOKED), "; enable the machine's account in the domain"},
      {static_cast<krb5_error_code>(KRB5_KDC_UNREACH), "; check the network and the name service"},
      {static_cast<krb5_error_code>(KRB5_REALM_CANT_RESOLVE), "; check the network and the name service"},
      {static_cast<krb5_error_code>(KRB5_REALM_UNKNOWN), "; check the network and the name service"},
      {static_cast<krb5_error_code>(KRB5KRB_AP_ERR_SKEW), "; set this machine's clock"},
      {static_cast<krb5_error_code>(KRB5_KDCREP_SKEW), "; set this machine's clock"},
  };
  for (const auto& row : TABLE) {
    if (row.code == code) return row.advice;
  }
  return "";
}

// The host or the KDC rules out encryption types: is it this host's configuration that rules out the keytab's?
const char* adviceForTypes(krb5_context context, const std::string& account, const std::string& keytabPath) {
  KrbEncTypes permitted(context);
  requireKrb(context, krb5_get_permitted_enctypes(context, permitted.out()), "krb5_get_permitted_enctypes");
  for (const MachineKey& key : readMachineKeys(context, keytabPath)) {
    const krb5_enctype* type = permitted.get();
    while (*type != 0 && *type != key.encType()) ++type;
    if (*type == 0 && key.principal() == account) return "; permit its types (permitted_enctypes in krb5.conf)";
  }
  return "; join the machine again";
}

bool isAboutTypes(krb5_error_code code) {
  return code == static_cast<krb5_error_code>(KRB5KDC_ERR_ETYPE_NOSUPP) ||
         code == static_cast<krb5_error_code>(KRB5_KT_NOTFOUND) ||
         code == static_cast<krb5_error_code>(KRB5_PREAUTH_FAILED) ||
         code == static_cast<krb5_error_code>(KRB5_CONFIG_ETYPE_NOSUPP);
}

void requestTicket(krb5_context context, const std::string& account, const std::string& keytabPath, krb5_creds* creds) {
  std::string reason;
  const krb5_error_code rc = runKdcRequest(context, KeytabRequest{account, keytabPath}, KDC_LIMIT, creds, &reason);
  if (rc == 0) return;
  const std::string text = exceptionMessage(
      "Cannot get a ticket for the machine account %s: %s%s", account.c_str(), printable(reason, LONGEST_WORDS).c_str(),
      isAboutTypes(rc) ? adviceForTypes(context, account, keytabPath) : adviceFor(rc));
  throw KerberosException(rc, text.c_str(), __FILE__, __LINE__);
}

// The bytes of a cache file, format version 4: they hold a session key.
class CacheImage {
 public:
  CacheImage(krb5_context context, krb5_creds& creds) {
    krb5_data* ticket = nullptr;
    requireKrb(context, krb5_marshal_credentials(context, &creds, &ticket), "krb5_marshal_credentials");
    // Version, then a header of no fields. The difference to the KDC's clock stays out: the file outlives it, and once
    // this host's clock is set it would spoil what it was to mend.
    const char start[] = {5, 4, 0, 0};
    put(start, sizeof start);
    putPrincipal(creds.client);
    put(ticket->data, ticket->length);
    explicit_bzero(ticket->data, ticket->length);
    krb5_free_data(context, ticket);
  }
  const std::vector<char, MlockAlloc<char>>& bytes() const { return m_bytes; }

 private:
  void put(const char* data, std::size_t size) { m_bytes.insert(m_bytes.end(), data, data + size); }
  void putNumber(unsigned value) {
    const char bigEndian[] = {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
                              static_cast<char>(value >> 8), static_cast<char>(value)};
    put(bigEndian, sizeof bigEndian);
  }
  void putData(const krb5_data& data) {
    putNumber(data.length);
    put(data.data, data.length);
  }
  void putPrincipal(krb5_const_principal principal) {
    putNumber(static_cast<unsigned>(principal->type));
    putNumber(static_cast<unsigned>(principal->length));
    putData(principal->realm);
    for (int i = 0; i < principal->length; ++i) putData(principal->data[i]);
  }

  std::vector<char, MlockAlloc<char>> m_bytes;
};

void renew(const std::string& account, const std::string& keytabPath, const std::string& cachePath) {
  const KerberosContext context;
  KrbCreds creds(context.get());
  requestTicket(context.get(), account, keytabPath, creds.out());
  const CacheImage image(context.get(), *creds);
  replaceFile(cachePath, image.bytes().data(), image.bytes().size(), {geteuid(), getegid(), 0600});
}

std::string accountIn(krb5_context context, const std::string& keytabPath) {
  const std::vector<MachineKey> keys = readMachineKeys(context, keytabPath);
  const MachineKey* own = machineKey(keys);
  if (own == nullptr) throwNoMachineKey(keytabPath);
  return own->principal();
}

}  // namespace

std::string machineCredentialCache(const std::string& keytabPath, const std::string& cachePath) {
  const BareKerberosContext context;
  const std::string account = accountIn(context.get(), keytabPath);
  std::string name = "FILE:" + cachePath;
  if (lifeLeft(context.get(), cachePath, account) >= MACHINE_CACHE_RESERVE) return name;
  makeStateFolderFor(cachePath);
  // A holder is busy for one request to the KDC at most.
  const FileLock lock(cachePath + ".lock", 2 * KDC_LIMIT);
  const seconds left = lifeLeft(context.get(), cachePath, account);
  if (left >= MACHINE_CACHE_RESERVE) return name;  // another process was faster
  try {
    renew(account, keytabPath, cachePath);
  } catch (const LUMOException& failure) {
    if (left < MACHINE_CACHE_MINIMUM) throw;
    LUMO_LOG(getLogger("base.kerberos.wrap", false), lumo::level::Warn,
             "Using the machine's ticket for its last %lld seconds: %s", static_cast<long long>(left.count()),
             failure.what());
  }
  return name;
}

}  // namespace lumo
