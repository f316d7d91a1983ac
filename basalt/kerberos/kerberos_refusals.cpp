#include "basalt/kerberos/kerberos_refusals.h"

#include <algorithm>
#include <utility>

#include "basalt/process/clock.h"

namespace lumo {
namespace {

// In the range left to applications (RFC 4120, section 7.5.1).
constexpr krb5_keyusage KEY_USAGE = 1798;

constexpr krb5_error_code REFUSALS[] = {
    static_cast<krb5_error_code>(KRB5KDC_ERR_PREAUTH_FAILED),
    static_cast<krb5_error_code>(KRB5KDC_ERR_CLIENT_REVOKED),
    static_cast<krb5_error_code>(KRB5KDC_ERR_KEY_EXP),
    static_cast<krb5_error_code>(KRB5KDC_ERR_NAME_EXP),
    static_cast<krb5_error_code>(KRB5KRB_AP_ERR_BAD_INTEGRITY),
};

}  // namespace

PasswordRefusals::~PasswordRefusals() { krb5_free_keyblock_contents(nullptr, &m_key); }

bool PasswordRefusals::isRefusal(krb5_error_code code) {
  return std::find(std::begin(REFUSALS), std::end(REFUSALS), code) != std::end(REFUSALS);
}

std::optional<std::string> PasswordRefusals::checksumOf(krb5_context context, const Shredder& password) {
  if (m_key.contents == nullptr && krb5_c_make_random_key(context, ENCTYPE_AES256_CTS_HMAC_SHA1_96, &m_key) != 0) {
    return std::nullopt;
  }
  krb5_data input{};
  input.data = const_cast<char*>(password.c_str());
  input.length = static_cast<unsigned>(password.size());
  krb5_checksum sum{};
  if (krb5_c_make_checksum(context, 0, &m_key, KEY_USAGE, &input, &sum) != 0) return std::nullopt;
  std::string bytes(reinterpret_cast<const char*>(sum.contents), sum.length);
  krb5_free_checksum_contents(context, &sum);
  return bytes;
}

void PasswordRefusals::forgetOld() {
  const auto now = Clock::getInstance().steadyNow();
  const auto isOld = [now](const Entry& entry) { return entry.until <= now; };
  m_entries.erase(std::remove_if(m_entries.begin(), m_entries.end(), isOld), m_entries.end());
}

void PasswordRefusals::add(krb5_context context, const std::string& principal, const Shredder& password,
                           const Refusal& refusal) noexcept {
  if (!isRefusal(refusal.code)) return;
  try {
    const std::lock_guard<std::mutex> held(m_mutex);
    forgetOld();
    std::optional<std::string> checksum = checksumOf(context, password);
    if (!checksum) return;
    if (m_entries.size() >= MOST) m_entries.erase(m_entries.begin());
    m_entries.push_back({principal, std::move(*checksum), refusal, Clock::getInstance().steadyNow() + MEMORY});
  } catch (...) {
    // Without memory for it the KDC is asked again.
  }
}

std::optional<PasswordRefusals::Refusal> PasswordRefusals::find(krb5_context context, const std::string& principal,
                                                                const Shredder& password) {
  const std::lock_guard<std::mutex> held(m_mutex);
  forgetOld();
  if (m_entries.empty()) return std::nullopt;
  const std::optional<std::string> checksum = checksumOf(context, password);
  for (const Entry& entry : m_entries) {
    if (checksum && entry.principal == principal && entry.checksum == *checksum) return entry.refusal;
  }
  return std::nullopt;
}

}  // namespace lumo
