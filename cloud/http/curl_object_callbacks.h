// The functions that libcurl calls during a transfer; their data is the CurlObject. No exception crosses libcurl: it is
// kept in the object and thrown by perform.
#pragma once

#include "cloud/include/curl_object.h"

struct CurlCallbacks {
  // Hands out the next bytes of the request body.
  static size_t read(char* buffer, size_t size, size_t count, void* object) noexcept;
  // Sets the place in the request body from which to send again.
  static int seek(void* object, curl_off_t offset, int origin) noexcept;
  // Opens a socket that no program started by this process inherits.
  static curl_socket_t openSocket(void* object, curlsocktype purpose, curl_sockaddr* address) noexcept;
  // Appends to the response buffer.
  static size_t write(char* data, size_t size, size_t count, void* object) noexcept;
  // Keeps a header line with its line ending; one longer than 102400 bytes is dropped. libcurl itself takes no such
  // line: one of 102400 bytes or more ends the transfer, with CURLE_OUT_OF_MEMORY (27) or, since version 8.6,
  // CURLE_TOO_LARGE (100). Ends the transfer, by a short count, where the answer to the line would reveal the password,
  // the line cannot be judged, memory ends, or the header lines of the exchange exceed their limit together.
  static size_t header(char* data, size_t size, size_t count, void* object) noexcept;
  // Ends the transfer, by a result that is not 0, when its limits say so or a callback has failed: that of the trace
  // cannot end it itself. libcurl calls it for each piece that it reads, also of what it throws away, and about once a
  // second when nothing happens.
  static int progress(void* object, curl_off_t, curl_off_t, curl_off_t, curl_off_t) noexcept;
};
