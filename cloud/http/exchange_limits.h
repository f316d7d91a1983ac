// The limits of one HTTP exchange that libcurl does not keep: its time, its header lines, its trace; and the stop of
// all exchanges.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <cstddef>

// libcurl looks at its own time limit only between two pieces of work: a peer that always has more bytes for it keeps
// it busy for ever. So CurlObject asks here from the progress callback, which libcurl calls for each of these bytes
// too. Time is that of lumo::Clock. One thread at a time.
class ExchangeLimits {
 public:
  // All header lines of an exchange: replies of proxies, redirects and trailers too.
  static constexpr size_t MAX_HEADER_BYTES = size_t{2} * 1024 * 1024;
  // All lines of a trace, with the memory that keeps each of them.
  static constexpr size_t MAX_TRACE_BYTES = size_t{8} * 1024 * 1024;

  // The time for an exchange, from its next `begin` on. 0 and less: no limit.
  void setTime(std::chrono::milliseconds time);
  std::chrono::milliseconds time() const { return length; }
  // An exchange begins: its time and the count of its header lines.
  void begin();
  // A trace begins.
  void beginTrace() { traceBytes = 0; }

  // Is the exchange to end, as its time is over or all exchanges are stopped? The reason of the first yes stays until
  // the next `begin`.
  bool isOver();
  // What the exchange ended with, where libcurl says `code`: a failure that isOver caused gets the code of its reason,
  // CURLE_OPERATION_TIMEDOUT or CURLE_ABORTED_BY_CALLBACK.
  CURLcode codeFor(CURLcode code) const;

  // Counts header bytes. False when there are too many.
  bool takeHeader(size_t bytes);
  // Counts a line of the trace. False when it is too much; no later one is taken either.
  bool takeTrace(size_t bytes);
  bool isTraceFull() const { return traceBytes > MAX_TRACE_BYTES; }

 private:
  std::chrono::milliseconds length{0};
  std::chrono::steady_clock::time_point deadline{};
  bool hasDeadline = false;
  CURLcode reason = CURLE_OK;
  size_t headerBytes = 0;
  size_t traceBytes = 0;
};
