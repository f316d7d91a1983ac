// A libcurl of this process that is built without some authentication scheme. Included in one file of a test program:
// its two functions stand before the library's, so that CurlObject calls them.
#pragma once

#include <curl/curl.h>
#include <dlfcn.h>

#include <atomic>
#include <cstdarg>

#undef curl_easy_setopt
#undef curl_easy_getinfo

namespace lessercurl {

inline std::atomic<long> missing{0};

// From construction to destruction libcurl lacks the schemes of the mask, as far as proxies are concerned.
class LibcurlWithout {
 public:
  explicit LibcurlWithout(long schemes) { missing = schemes; }
  ~LibcurlWithout() { missing = 0; }
  LibcurlWithout(const LibcurlWithout&) = delete;
  LibcurlWithout& operator=(const LibcurlWithout&) = delete;
};

template <class Function>
Function* original(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace lessercurl

// libcurl fixes these types: an enumeration stands in front of the dots, which clang warns of in C++.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wvarargs"

// libcurl takes the schemes that it does not have out of a mask, without a word.
extern "C" CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
  static auto* const real = lessercurl::original<decltype(curl_easy_setopt)>("curl_easy_setopt");
  std::va_list arguments;
  va_start(arguments, option);
  void* const value = va_arg(arguments, void*);  // long, curl_off_t and every pointer are of this size
  va_end(arguments);
  if (option != CURLOPT_PROXYAUTH) return real(handle, option, value);
  return real(handle, option, reinterpret_cast<long>(value) & ~lessercurl::missing.load());
}

extern "C" CURLcode curl_easy_getinfo(CURL* handle, CURLINFO info, ...) {
  static auto* const real = lessercurl::original<decltype(curl_easy_getinfo)>("curl_easy_getinfo");
  std::va_list arguments;
  va_start(arguments, info);
  void* const result = va_arg(arguments, void*);
  va_end(arguments);
  const CURLcode code = real(handle, info, result);
  if (info == CURLINFO_PROXYAUTH_AVAIL && code == CURLE_OK) *static_cast<long*>(result) &= ~lessercurl::missing.load();
  return code;
}

#pragma GCC diagnostic pop
