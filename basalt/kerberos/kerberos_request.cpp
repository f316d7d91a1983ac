#include "basalt/kerberos/kerberos_request.h"

#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <condition_variable>
#include <ctime>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>

#include "basalt/kerberos/kerberos_handles.h"
#include "basalt/kerberos_abandoned.h"
#include "base/include/kerb_wrap.h"

namespace lumo {
namespace {

// What caller and thread share. The thread gives up its part before it can be joined, so that the one who joins frees
// it: the library's exit handlers then run after the thread's last use of it.
struct Exchange {
  ~Exchange() {
    if (context == nullptr) return;
    krb5_free_cred_contents(context, &creds);
    krb5_free_context(context);
  }

  bool hasEnded() {
    const std::lock_guard<std::mutex> held(mutex);
    return done;
  }
  bool waitUntil(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> held(mutex);
    return changed.wait_until(held, deadline, [this] { return done; });
  }
  // False, and the thread's result will be dropped, when it has not ended by then.
  bool awaitOrAbandon(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> held(mutex);
    abandoned = !changed.wait_for(held, limit, [this] { return done; });
    return !abandoned;
  }

  krb5_context context = nullptr;
  KdcRequest request;
  std::thread thread;
  std::mutex mutex;
  std::condition_variable changed;
  bool done = false;
  bool abandoned = false;
  krb5_error_code code = 0;
  krb5_creds creds{};
  std::string text;
};

using Exchanges = std::list<std::shared_ptr<Exchange>>;

// The abandoned exchanges. A thread takes an exchange's lock inside this one, never the other way round.
class Abandoned {
 public:
  // Never destroyed: the destructor of a thread that still runs would end the process.
  static Abandoned& instance() {
    static auto* const all = new Abandoned;
    return *all;
  }

  // Takes the exchange out of a list of one, which needs no memory.
  void add(Exchanges& one) {
    const std::lock_guard<std::mutex> held(mutex_);
    exchanges_.splice(exchanges_.end(), one);
  }
  // Joins those that have ended. One that still runs, or null.
  std::shared_ptr<Exchange> reap() {
    const std::lock_guard<std::mutex> held(mutex_);
    exchanges_.remove_if([](const std::shared_ptr<Exchange>& exchange) {
      if (!exchange->hasEnded()) return false;
      exchange->thread.join();
      return true;
    });
    return exchanges_.empty() ? nullptr : exchanges_.front();
  }
  std::size_t count() {
    const std::lock_guard<std::mutex> held(mutex_);
    return exchanges_.size();
  }

 private:
  std::mutex mutex_;
  Exchanges exchanges_;
};

// Trace lines stop with the caller's patience: by then the process may be ending, and its loggers with it.
void traceWhileAwaited(krb5_context context, const krb5_trace_info* info, void* data) {
  auto& exchange = *static_cast<Exchange*>(data);
  const std::lock_guard<std::mutex> held(exchange.mutex);
  if (!exchange.abandoned) mvd_krb5_trace_cb(context, info, nullptr);
}

void serve(const std::shared_ptr<Exchange>& exchange) {
  krb5_creds creds{};
  krb5_error_code code = 0;
  std::string text;
  try {
    code = exchange->request(exchange->context, &creds);
    if (code != 0) text = krbErrorText(exchange->context, code);
  } catch (...) {
    code = ENOMEM;
  }
  exchange->request = nullptr;  // and the password in it
  // The trace holds the same lock, so it must be off before the context is freed.
  krb5_set_trace_callback(exchange->context, nullptr, nullptr);
  const std::lock_guard<std::mutex> held(exchange->mutex);
  exchange->creds = creds;
  exchange->code = code;
  exchange->text.swap(text);
  exchange->done = true;
  exchange->changed.notify_all();
}

// A thread that leaves the process's signals to the others.
void startQuietThread(const std::shared_ptr<Exchange>& exchange) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    exchange->thread = std::thread(serve, exchange);
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    throw;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// The library notes how far the KDC's clock is from this host's, and goes by it in what it makes with the ticket.
void takeOverClock(krb5_context from, krb5_context to) {
  krb5_timestamp seconds = 0;
  krb5_int32 microseconds = 0;
  if (krb5_get_time_offsets(from, &seconds, &microseconds) != 0 || seconds == 0) return;
  const auto now = static_cast<unsigned>(std::time(nullptr));
  krb5_set_real_time(to, static_cast<krb5_timestamp>(now + static_cast<unsigned>(seconds)), -1);
}

krb5_error_code fail(krb5_error_code code, const std::string& text, std::string* errorText) {
  if (errorText != nullptr) *errorText = text;
  return code;
}

}  // namespace

krb5_error_code runKdcRequest(krb5_context context, KdcRequest request, std::chrono::milliseconds limit,
                              krb5_creds* creds, std::string* errorText) {
  Abandoned::instance().reap();
  const auto exchange = std::make_shared<Exchange>();
  Exchanges one{exchange};
  const krb5_error_code copied = krb5_copy_context(context, &exchange->context);
  if (copied != 0) return fail(copied, krbErrorText(context, copied), errorText);
  krb5_set_trace_callback(exchange->context, traceWhileAwaited, exchange.get());
  exchange->request = std::move(request);
  try {
    startQuietThread(exchange);
  } catch (const std::system_error& failure) {
    return fail(failure.code().value(), failure.what(), errorText);
  }
  if (!exchange->awaitOrAbandon(limit)) {
    Abandoned::instance().add(one);
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit).count();
    return fail(static_cast<krb5_error_code>(KRB5_KDC_UNREACH),
                "No answer from a KDC within " + std::to_string(seconds) + " seconds", errorText);
  }
  exchange->thread.join();
  if (exchange->code != 0) return fail(exchange->code, exchange->text, errorText);
  takeOverClock(exchange->context, context);
  *creds = std::exchange(exchange->creds, krb5_creds{});
  return 0;
}

bool joinAbandonedKdcRequests(std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (const std::shared_ptr<Exchange> running = Abandoned::instance().reap()) {
    if (!running->waitUntil(deadline)) return false;
  }
  return true;
}

std::size_t abandonedKdcRequests() { return Abandoned::instance().count(); }

}  // namespace lumo
