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
  // Keeps a header line with its line ending; one longer than 102400 bytes is dropped. Ends the transfer,
  // by a short count, only where the answer to the line would reveal the password or the line cannot be judged.
  static size_t header(char* data, size_t size, size_t count, void* object) noexcept;
};
