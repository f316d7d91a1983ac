// Passwords that a KDC has just refused. Internal to the Kerberos unit.
#pragma once

#include <krb5.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/include/shredder.h"

namespace lumo {

// Remembers which password of which principal was refused, so that an exchange that is repeated is no second guess: a
// directory counts each one, and locks the account after a few. It holds no password, only checksums under a random key
// of its own. Any thread; a context serves one.
class PasswordRefusals {
 public:
  // How long a refusal stands, by lumo::Clock. It is short: the password may be put right in the directory.
  static constexpr std::chrono::seconds MEMORY{60};
  static constexpr std::size_t MOST = 16;

  struct Refusal {
    krb5_error_code code = 0;
    std::string text;
  };

  PasswordRefusals() = default;
  ~PasswordRefusals();
  PasswordRefusals(const PasswordRefusals&) = delete;
  PasswordRefusals& operator=(const PasswordRefusals&) = delete;

  // Does the code refuse this very password, or the account whatever the password?
  static bool isRefusal(krb5_error_code code);

  // Keeps the refusal, unless the code is none or there is no memory for it; of more than MOST the oldest goes. Does
  // not throw.
  void add(krb5_context context, const std::string& principal, const Shredder& password,
           const Refusal& refusal) noexcept;
  // The refusal that still stands for the password; nothing for another password or another principal.
  std::optional<Refusal> find(krb5_context context, const std::string& principal, const Shredder& password);

 private:
  struct Entry {
    std::string principal;
    std::string checksum;
    Refusal refusal;
    std::chrono::steady_clock::time_point until;
  };

  std::optional<std::string> checksumOf(krb5_context context, const Shredder& password);
  void forgetOld();

  std::mutex m_mutex;
  krb5_keyblock m_key{};
  std::vector<Entry> m_entries;
};

}  // namespace lumo
