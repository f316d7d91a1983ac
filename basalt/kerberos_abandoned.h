// What becomes of requests to a KDC that nobody waits for any more. Both operations may be called from any thread.
#pragma once

#include <chrono>
#include <cstddef>

namespace lumo {

// Waits at most `limit` for the abandoned requests to end and joins the threads of those that have. True when none is
// left: then no thread of ours is inside the Kerberos library. After a false answer the process must not run exit
// handlers, which would tear the library down under such a thread: it flushes what it has written and calls _exit.
bool joinAbandonedKdcRequests(std::chrono::milliseconds limit);

// How many abandoned requests have not been joined.
std::size_t abandonedKdcRequests();

}  // namespace lumo
