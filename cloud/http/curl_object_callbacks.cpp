#include "cloud/http/curl_object_callbacks.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "cloud/http/curl_object_layer.h"
#include "cloud/http/exchange_limits.h"

namespace {

constexpr size_t MAX_HEADER_LINE = 102400;

// The mark in front of a trace line, 0 for a type that is not traced.
char traceMark(curl_infotype type) {
  switch (type) {
    case CURLINFO_TEXT:
      return '*';
    case CURLINFO_HEADER_IN:
    case CURLINFO_DATA_IN:
    case CURLINFO_SSL_DATA_IN:
      return '<';
    case CURLINFO_HEADER_OUT:
    case CURLINFO_DATA_OUT:
    case CURLINFO_SSL_DATA_OUT:
      return '>';
    default:
      return 0;
  }
}

// Room for so many bytes, and some more where there is memory for it: a large body comes in thousands of pieces. Null
// when there is none.
char* grow(char* buffer, size_t& capacity, size_t needed) {
  if (needed <= capacity) return buffer;
  for (const size_t wanted : {std::max(needed, 2 * capacity), needed}) {
    if (auto* grown = static_cast<char*>(std::realloc(buffer, wanted))) {
      capacity = wanted;
      return grown;
    }
  }
  return nullptr;
}

// To be called once memory was given back, of which the exception needs some.
std::exception_ptr noMemoryFor(const char* what) noexcept {
  try {
    LUMO_THROW(lumo::CurlException, -1, "Not enough memory for curl %s", what);
  } catch (...) {
    return std::current_exception();
  }
}

}  // namespace

size_t CurlCallbacks::read(char* buffer, size_t size, size_t count, void* object) noexcept {
  auto* self = static_cast<CurlObject*>(object);
  const size_t handed = std::min(size * count, self->readLeft);
  if (handed != 0) std::memcpy(buffer, self->readPosition, handed);
  self->readPosition += handed;
  self->readLeft -= handed;
  return handed;
}

int CurlCallbacks::seek(void* object, curl_off_t offset, int origin) noexcept {
  auto* self = static_cast<CurlObject*>(object);
  if (origin != SEEK_SET || offset < 0 || static_cast<size_t>(offset) > self->requestBody.size()) {
    return CURL_SEEKFUNC_FAIL;
  }
  self->readPosition = self->requestBody.data() + offset;
  self->readLeft = self->requestBody.size() - static_cast<size_t>(offset);
  return CURL_SEEKFUNC_OK;
}

curl_socket_t CurlCallbacks::openSocket(void*, curlsocktype, curl_sockaddr* address) noexcept {
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

size_t CurlCallbacks::write(char* data, size_t size, size_t count, void* object) noexcept {
  auto* self = static_cast<CurlObject*>(object);
  const size_t length = size * count;
  try {
    char* grown = grow(self->writeBuffer, self->writeCapacity, self->writeLength + length + 1);
    if (grown == nullptr) {
      // What has come so far is of no use; giving it back makes room for the report.
      self->dropBody();
      LUMO_THROW(lumo::CurlException, -1, "Not enough memory for curl write buffer");
    }
    std::memcpy(grown + self->writeLength, data, length);
    self->writeBuffer = grown;
    self->writeLength += length;
    grown[self->writeLength] = '\0';
    return length;
  } catch (...) {
    self->callbackFailure = std::current_exception();
    return length == 0 ? 1 : 0;
  }
}

size_t CurlCallbacks::header(char* data, size_t size, size_t count, void* object) noexcept {
  auto* self = static_cast<CurlObject*>(object);
  const size_t length = size * count;
  if (data == nullptr || self == nullptr) return length;
  self->noteCookie({data, length});
  try {
    if (!self->limits->takeHeader(length)) {
      LUMO_THROW(lumo::CurlException, -1, "The header lines of the reply are longer than %zu bytes together.",
                 ExchangeLimits::MAX_HEADER_BYTES);
    }
    if (length <= MAX_HEADER_LINE) self->headerLines.emplace_back(data, length);
    return self->layer->mayAnswer({data, length}) ? length : 0;
  } catch (const std::bad_alloc&) {
    self->dropHeaders();
    self->callbackFailure = noMemoryFor("header lines");
    return 0;
  } catch (...) {
    // A challenge that nobody has judged is not to be answered.
    self->callbackFailure = std::current_exception();
    return 0;
  }
}

int CurlObject::debugCallback(CURL*, curl_infotype type, char* data, size_t size, void* object) {
  auto* self = static_cast<CurlObject*>(object);
  const char mark = traceMark(type);
  if (self == nullptr || data == nullptr || mark == 0) return 0;
  try {
    const size_t length = strnlen(data, size);
    if (self->limits->isTraceFull()) return 0;
    if (!self->limits->takeTrace(length + 1)) {
      self->debugLines.emplace_back("*The trace ends here: it has reached its limit.\n");
      return 0;
    }
    std::string line;
    line.reserve(length + 1);  // growing would leave a piece of a credential on the heap
    line += mark;
    line.append(data, length);
    self->debugLines.push_back(std::move(line));
  } catch (...) {
    // Nothing but memory can be missing here.
    self->forgetTrace();
    self->callbackFailure = noMemoryFor("trace");
  }
  return 0;
}

int CurlCallbacks::progress(void* object, curl_off_t, curl_off_t, curl_off_t, curl_off_t) noexcept {
  auto* self = static_cast<CurlObject*>(object);
  return self->callbackFailure != nullptr || self->limits->isOver() ? 1 : 0;
}
