// What the source files of CurlObject share.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>

#include "base/include/wipe.h"
#include "cloud/include/curl_object.h"

struct CleanupCurl {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
using CurlHandle = std::unique_ptr<CURL, CleanupCurl>;

struct FreeCurlList {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlList = std::unique_ptr<curl_slist, FreeCurlList>;

[[noreturn]] void throwSetOptFailure(CURLcode code);

// Gives libcurl an option. Throws CurlException.
template <class Value>
void setCurl(CURL* handle, int option, Value value) {
  const CURLcode code = curl_easy_setopt(handle, static_cast<CURLoption>(option), value);
  if (code != CURLE_OK) throwSetOptFailure(code);
}

// Throws CurlException when the mask asks for NTLM alone and the features of libcurl (curl_version_info) lack it:
// libcurl would go down to a weaker scheme.
void requireNtlm(long mask, int features);

// Is this the bundle or the folder of the certificates that the handle trusts?
bool namesTrust(int option);

// The option that says of a proxy reached by TLS what the given one says of the server: are its certificate and name
// verified? 0 where the given one says something else.
int verificationOfProxy(int option);

// The handle trusts no certificate, neither of a server nor of a proxy: libcurl's built-in bundle and folder are taken
// away. A bundle that is named later is read for each new connection. Throws CurlException.
void trustNothing(CURL* handle);

// Every byte but letters, digits and "-._~" as %XX, in locked memory.
lumo::Shredder2 percentEscape(const char* data, size_t length);
