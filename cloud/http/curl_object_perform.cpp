#include <cstdlib>
#include <utility>

#include "cloud/http/curl_object_callbacks.h"
#include "cloud/http/curl_object_internal.h"
#include "cloud/http/curl_object_layer.h"
#include "cloud/http/exchange_limits.h"

namespace {

// From here on libcurl would wait for "100 Continue", which many proxies never send.
constexpr size_t EXPECT_THRESHOLD = size_t{1024} * 1024;

// A reply has about so many header lines.
constexpr size_t USUAL_HEADER_LINES = 16;

// Its time is over, or it was stopped: a second attempt would take as long again, or would be stopped as well.
bool isFinal(CURLcode code) { return code == CURLE_OPERATION_TIMEDOUT || code == CURLE_ABORTED_BY_CALLBACK; }

}  // namespace

void CurlObject::dropBody() {
  if (writeBuffer != nullptr) explicit_bzero(writeBuffer, writeLength);
  std::free(writeBuffer);
  writeBuffer = nullptr;
  writeLength = 0;
  writeCapacity = 0;
}

void CurlObject::dropHeaders() {
  for (std::string& line : headerLines) wipe(line);
  headerLines.clear();
}

void CurlObject::rewindAttempt() {
  dropHeaders();
  headerLines.reserve(USUAL_HEADER_LINES);
  readPosition = requestBody.data();
  readLeft = requestBody.size();
  dropBody();
  writeBuffer = static_cast<char*>(std::calloc(1, 1));
  if (writeBuffer == nullptr) LUMO_THROW(lumo::CurlException, -1, "Not enough memory for curl write buffer");
  writeCapacity = 1;
}

void CurlObject::forgetExchange() noexcept {
  dropBody();
  wipe(responseBody);
  responseBody.shrink_to_fit();
  dropHeaders();
  headerLines.shrink_to_fit();
  forgetTrace();
  debugLines.shrink_to_fit();
}

void CurlObject::forgetTrace() {
  for (std::string& line : debugLines) wipe(line);
  debugLines.clear();
  limits->beginTrace();
}

void CurlObject::buildHeaderList() {
  headerStrings.resize(headers.size());
  // Room for all at once: each node points to the next.
  headerNodes.clear();
  headerNodes.reserve(headers.size() + 2);
  const auto append = [this](const char* line) {
    headerNodes.push_back({const_cast<char*>(line), nullptr});
    if (headerNodes.size() > 1) headerNodes[headerNodes.size() - 2].next = &headerNodes.back();
  };
  const std::string& authorization = layer->authorizationLine();
  bool isDue = !authorization.empty();
  size_t next = 0;
  for (const auto& [name, value] : headers) {
    if (isDue && name > "Authorization") {
      append(authorization.c_str());
      isDue = false;
    }
    headerStrings[next] = name;
    headerStrings[next].append(": ").append(value);
    append(headerStrings[next].c_str());
    ++next;
  }
  if (requestBody.size() >= EXPECT_THRESHOLD && headers.count("Expect") == 0) append("Expect:");
  setOpt(CURLOPT_HTTPHEADER, static_cast<void*>(headerNodes.data()));
}

void CurlObject::prepareAttempt(const std::string& url, const std::string& body, int post) {
  setOpt(CURLOPT_POST, post);
  forgetTrace();
  setOpt(CURLOPT_HEADERDATA, static_cast<void*>(this));
  setOpt(CURLOPT_HEADERFUNCTION, &CurlCallbacks::header);
  requestBody = body;
  rewindAttempt();
  headers["Content-Length"] = std::to_string(requestBody.size());
  setOpt(CURLOPT_URL, url);
  setOpt(CURLOPT_READFUNCTION, &CurlCallbacks::read);
  setOpt(CURLOPT_WRITEFUNCTION, &CurlCallbacks::write);
  setOpt(CURLOPT_READDATA, static_cast<void*>(this));
  setOpt(CURLOPT_WRITEDATA, static_cast<void*>(this));
  setAttemptDefaults();
  buildHeaderList();
  limits->begin();
}

// Not in the ledger, like those of each attempt: nobody takes these away, and later code must not find options that it
// never set.
void CurlObject::setTransportDefaults() {
  // Lets libcurl send the body again when a kept connection turns out to be dead.
  setCurl(handle, CURLOPT_SEEKFUNCTION, &CurlCallbacks::seek);
  setCurl(handle, CURLOPT_SEEKDATA, static_cast<void*>(this));
  // Request headers are for the server alone.
  setCurl(handle, CURLOPT_HEADEROPT, static_cast<long>(CURLHEADER_SEPARATE));
  setCurl(handle, CURLOPT_SUPPRESS_CONNECT_HEADERS, 0L);
  // Nothing else that libcurl may speak: files, mail, directories.
  setCurl(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  setCurl(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  setCurl(handle, CURLOPT_OPENSOCKETFUNCTION, &CurlCallbacks::openSocket);
  // After a time-out libcurl does not wait for its thread that still asks DNS.
  setCurl(handle, CURLOPT_QUICK_EXIT, 1L);
  setCurl(handle, CURLOPT_XFERINFOFUNCTION, &CurlCallbacks::progress);
  setCurl(handle, CURLOPT_XFERINFODATA, static_cast<void*>(this));
  setCurl(handle, CURLOPT_NOPROGRESS, 0L);
}

void CurlObject::setAttemptDefaults() {
  // The length keeps libcurl from chunking.
  setCurl(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(requestBody.size()));
  // The settings decide about the proxy; http_proxy and no_proxy of the environment never do.
  if (options.count(CURLOPT_NOPROXY) == 0) {
    setCurl(handle, CURLOPT_NOPROXY, options.count(CURLOPT_PROXY) == 0 ? "*" : "");
  }
}

CURLcode CurlObject::transfer() {
  const bool isOver = limits->isOver();
  return limits->codeFor(isOver ? CURLE_ABORTED_BY_CALLBACK : curl_easy_perform(handle));
}

std::pair<long, std::string> CurlObject::perform(const std::string& url, const std::string& body, int post) {
  const WipeAtEnd wipeBody(requestBody);
  for (bool first = true;; first = false) {
    prepareAttempt(url, body, post);
    callbackFailure = nullptr;
    const CURLcode code = layer->exchange();
    if (callbackFailure) {
      layer->leaveConnections();
      std::rethrow_exception(std::exchange(callbackFailure, nullptr));
    }
    if (code == CURLE_OK) {
      long status = 0;
      curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
      wipe(responseBody);
      responseBody = writeBuffer == nullptr ? "" : writeBuffer;
      return {status, responseBody};
    }
    if (isFinal(code) || options.count(CURLOPT_PROXYAUTH) == 0 || !first || !negotiate.handleKrb5CCache(headerLines)) {
      layer->throwRefusal();
      LUMO_THROW(lumo::CurlException, -1, "curl error occurred in curl_easy_perform: %s (%d)", curl_easy_strerror(code),
                 static_cast<int>(code));
    }
    clearCredentialOptions();
    negotiate.clearGSSCredential(false);
    negotiate.initGSSCredential();
    setCredentialOptions();
  }
}
