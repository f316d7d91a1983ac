// The owner of one krb5_context, and the error side of all Kerberos work.
#pragma once

// com_err.h declares no linkage of its own, and krb5.h includes it outside its extern "C".
extern "C" {
#include <et/com_err.h>
}
#include <krb5.h>

#include <atomic>
#include <string>

#include "base/include/exceptions.h"
#include "base/include/mutex.h"

// The slot of the agent's time-sync scheduler that a clock error writes to.
class TimeSyncScheduler {
 public:
  // Holder of `gScheduler`, zero until somebody schedules. Any thread.
  static std::atomic<long>& getScheduler();
};

// A Kerberos failure; rc() is the Kerberos code. A code that says the clocks disagree also sets the scheduler's slot to
// 0.
class KerberosException : public BASALTException {
 public:
  KerberosException(int rc, const char* message, const char* file, int line,
                    const char* className = "KerberosException");
};

// `what`, ": ", and the library's text for rc.
std::string KerbMessage(int rc, const char* what);

// One krb5_context, made so that a damaged configuration file does not stop the host: the file is moved aside to its
// name with ".bad" behind it and an empty profile is used. Throws KerberosException when there is still no context.
// Settings that cannot be read stop nothing either: no file is then moved, as nobody can say which one is meant, and
// weak encryption types stay off. A context serves one thread at a time; the lock is for users who share one.
class KerberosContext : private lumo::Mutex {
 public:
  KerberosContext();
  ~KerberosContext();
  KerberosContext(const KerberosContext&) = delete;
  KerberosContext& operator=(const KerberosContext&) = delete;

  krb5_context get() const noexcept { return m_context; }
  lumo::Mutex& lock() noexcept { return *this; }

  // An independent context with the same profile, default realm, weak-crypto setting and trace; the caller frees it
  // with krb5_free_context. Holds the lock meanwhile. Throws KerberosException. Defined by the platform library.
  krb5_context clone() const;

  // Brings the profile up to date with the settings: the joined domain becomes the default realm where the profile
  // names none. Settings that cannot be read leave it as it is. Defined by the platform library.
  void profileUpdate();

 private:
  void init();

  krb5_context m_context = nullptr;
};

// Trace callback of every context: Kerberos trace lines go to "base.kerberos.wrap" at level 1, except those that tell
// of a long-term key or of a proof made with one, which are never written: a weak password could be guessed from them.
// Defined by the platform library.
void mvd_krb5_trace_cb(krb5_context context, const krb5_trace_info* info, void* data);
