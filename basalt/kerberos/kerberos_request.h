// Requests to a KDC that end in bounded time. Internal to the Kerberos unit.
#pragma once

#include <krb5.h>

#include <chrono>
#include <functional>
#include <string>

namespace lumo {

// The library tries every KDC of a realm three times with growing pauses and has no limit of its own: a realm whose
// KDCs are all silent would hold the caller for minutes.
inline constexpr std::chrono::seconds KDC_LIMIT{30};

// Work on a context of its own: returns 0 with creds filled, or a Kerberos code. It may outlive the call that gave it:
// whatever it uses belongs to it. Destroyed on the thread that ran it, as soon as it has ended.
using KdcRequest = std::function<krb5_error_code(krb5_context context, krb5_creds* creds)>;

// Runs the request on a thread with a copy of the context and waits at most `limit`. A request that has not ended then
// is left to end by itself, its result is dropped, and the code is KRB5_KDC_UNREACH; later calls join it once it has
// ended, and kerberos_abandoned.h tells what a process does about it before it exits. Returns 0 and fills creds, which
// the caller frees with krb5_free_cred_contents, or the code and, when errorText is not null, a text. What the library
// has learnt of the KDC's clock goes over to `context`.
krb5_error_code runKdcRequest(krb5_context context, KdcRequest request, std::chrono::milliseconds limit,
                              krb5_creds* creds, std::string* errorText);

}  // namespace lumo
