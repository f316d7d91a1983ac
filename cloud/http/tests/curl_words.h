// libcurl's words for what it returns: they differ between its versions, so that tests take them from libcurl.
#pragma once

#include <string>

#include "cloud/include/curl_object.h"

namespace curltest {

inline std::string curlWords(CURLcode code) {
  return std::string(curl_easy_strerror(code)) + " (" + std::to_string(static_cast<int>(code)) + ")";
}

// The text of the exception for a transfer that failed, and of that for an option that libcurl does not take.
inline std::string transferFailed(CURLcode code) {
  return "curl error occurred in curl_easy_perform: " + curlWords(code);
}
inline std::string setOptFailed(CURLcode code) { return "curl error occurred in curl_easy_setopt: " + curlWords(code); }

}  // namespace curltest
