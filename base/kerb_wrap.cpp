#include "base/include/kerb_wrap.h"

#include <profile.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>

#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"

namespace {

constexpr int CLOCKS_DISAGREE[] = {
    static_cast<int>(KRB5_KDCREP_SKEW),          static_cast<int>(KRB5KDC_ERR_NEVER_VALID),
    static_cast<int>(KRB5KDC_ERR_CLIENT_NOTYET), static_cast<int>(KRB5KRB_AP_ERR_TKT_NYV),
    static_cast<int>(KRB5KRB_AP_ERR_SKEW),
};

boost::shared_ptr<lumo::Logger> logger() { return getLogger("base.kerberos.wrap", false); }

// A setting, or nothing when the settings cannot be read.
std::optional<std::string> setting(const char* key, const std::string& defaultValue) {
  try {
    return lumo::Props(false, false).getProperty(key, defaultValue);
  } catch (const LUMOException& failure) {
    LUMO_LOG(logger(), lumo::level::Warn, "Cannot read setting %s: %s", key, failure.what());
    return std::nullopt;
  }
}

void moveAside(const std::string& file) {
  static std::mutex oneMover;
  const std::lock_guard<std::mutex> held(oneMover);
  const std::string bad = file + ".bad";
  // A thread that comes second must not remove what the first has just saved.
  if (access(file.c_str(), F_OK) == 0) unlink(bad.c_str());
  if (std::rename(file.c_str(), bad.c_str()) != 0) {
    const int reason = errno;
    LUMO_LOG(logger(), lumo::level::Debug, "Failed to move bad %s aside(errno=%d)", file.c_str(), reason);
  }
}

// A context that reads no configuration file at all. The library's own call for a null profile would read the default
// file again.
krb5_error_code initWithEmptyProfile(krb5_context* context) {
  profile_t raw = nullptr;
  const long rc = profile_init_path("", &raw);
  if (rc != 0) return static_cast<krb5_error_code>(rc);
  const std::unique_ptr<struct _profile_t, decltype(&profile_release)> profile(raw, &profile_release);
  return krb5_init_context_profile(profile.get(), 0, context);
}

bool allowWeakCrypto() {
  const std::optional<std::string> value = setting(lumo::PN::KRB5_ALLOW_WEAK_CRYPTO, "");
  // An administrator's "no" may stand in the file that cannot be read.
  if (!value) return false;
  const auto is = [&](const char* word) { return strcasecmp(value->c_str(), word) == 0; };
  return !(is("false") || is("no") || is("0"));
}

}  // namespace

std::atomic<long>& TimeSyncScheduler::getScheduler() {
  static std::atomic<long> gScheduler{0};
  return gScheduler;
}

KerberosException::KerberosException(int rc, const char* message, const char* file, int line, const char* className)
    : BASALTException(file, line, message, className, rc) {
  if (std::find(std::begin(CLOCKS_DISAGREE), std::end(CLOCKS_DISAGREE), rc) != std::end(CLOCKS_DISAGREE)) {
    TimeSyncScheduler::getScheduler() = 0;
  }
}

std::string KerbMessage(int rc, const char* what) {
  // Without a context so far the library has not told com_err its texts. A second registration does no harm.
  static std::once_flag loaded;
  std::call_once(loaded, [] {
    add_error_table(&et_krb5_error_table);
    add_error_table(&et_prof_error_table);
  });
  return std::string(what) + ": " + error_message(rc);
}

KerberosContext::KerberosContext() {
  try {
    init();
  } catch (...) {
    if (m_context != nullptr) krb5_free_context(m_context);
    throw;
  }
}

KerberosContext::~KerberosContext() {
  if (m_context != nullptr) krb5_free_context(m_context);
}

void KerberosContext::init() {
  krb5_error_code rc = krb5_init_context(&m_context);
  if (rc == KRB5_CONFIG_BADFORMAT) {
    m_context = nullptr;
    const std::optional<std::string> file = setting(lumo::PN::KRB5_CONFFILE_NAME, "/etc/krb5.conf");
    if (file) moveAside(*file);
    LUMO_LOG(logger(), lumo::level::Warn,
             "Kerberos config file format error, reinit kerberos context using empty profile.");
    rc = initWithEmptyProfile(&m_context);
  }
  if (rc != 0) {
    m_context = nullptr;
    const std::string reason = KerbMessage(rc, "init context");
    LUMO_LOG(logger(), lumo::level::Error, "Failed to initialize kerberos context (rc=%d), reason=%s", rc,
             reason.c_str());
    throw KerberosException(rc, reason.c_str(), __FILE__, __LINE__);
  }
  krb5_allow_weak_crypto(m_context, allowWeakCrypto() ? 1 : 0);
  krb5_set_trace_callback(m_context, mvd_krb5_trace_cb, nullptr);
  profileUpdate();
}
