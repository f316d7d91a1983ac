#include "basalt/kerberos_request.h"

#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <condition_variable>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>

#include "basalt/kerberos_handles.h"
#include "base/include/kerb_wrap.h"

namespace lumo {
namespace {

// What caller and thread share; the last of the two frees it.
struct Exchange {
  ~Exchange() {
    if (context == nullptr) return;
    krb5_free_cred_contents(context, &creds);
    request = nullptr;
    krb5_free_context(context);
  }

  krb5_context context = nullptr;
  KdcRequest request;
  std::mutex mutex;
  std::condition_variable changed;
  bool done = false;
  bool abandoned = false;
  krb5_error_code code = 0;
  krb5_creds creds{};
  std::string text;
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
  // The trace holds the same lock, so it must be off before the context is freed under whichever thread comes last.
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
    std::thread(serve, exchange).detach();
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
  const auto exchange = std::make_shared<Exchange>();
  const krb5_error_code copied = krb5_copy_context(context, &exchange->context);
  if (copied != 0) return fail(copied, krbErrorText(context, copied), errorText);
  krb5_set_trace_callback(exchange->context, traceWhileAwaited, exchange.get());
  exchange->request = std::move(request);
  try {
    startQuietThread(exchange);
  } catch (const std::system_error& failure) {
    return fail(failure.code().value(), failure.what(), errorText);
  }
  std::unique_lock<std::mutex> held(exchange->mutex);
  if (!exchange->changed.wait_for(held, limit, [&] { return exchange->done; })) {
    exchange->abandoned = true;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit).count();
    return fail(static_cast<krb5_error_code>(KRB5_KDC_UNREACH),
                "No answer from a KDC within " + std::to_string(seconds) + " seconds", errorText);
  }
  if (exchange->code != 0) return fail(exchange->code, exchange->text, errorText);
  takeOverClock(exchange->context, context);
  *creds = std::exchange(exchange->creds, krb5_creds{});
  return 0;
}

}  // namespace lumo
