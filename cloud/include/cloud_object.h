// The root of every client of the platform's REST interface: its connection, its calls, the result of the last one.
#pragma once

#include <map>
#include <string>
#include <utility>

#include "cloud/include/cloud_object_pool.h"

class CurlObject;

// One thread at a time. A client holds at most one connection of the pool, from getCurl to releaseCurl or its end. Logs
// by "cloud.object".
class CloudBase {
 public:
  using Parameters = std::map<std::string, std::string>;

  // `url` is the platform's and ends in "/".
  explicit CloudBase(std::string url) : cloudUrl(std::move(url)) {}
  CloudBase(const CloudBase&) = delete;
  CloudBase& operator=(const CloudBase&) = delete;

  // Judges the last exchange; not 0 for success. Called by each get and post.
  virtual int processResult() = 0;
  virtual ~CloudBase();

  // One exchange each: `url`, or `url` + "?" + the parameters in the order of their keys, percent-encoded. `content` is
  // JSON. Return what processResult says; throw what CurlObject::perform throws when the transfer fails, the last
  // result then stays. Without a connection they throw lumo::CloudException "The client holds no connection: ...", and
  // so do setVerbose and setDebugTrace; for a URL without a scheme "The platform's URL is empty or has no scheme: ...",
  // for one without TLS that is not below the zone's URL of the configuration "The platform's URL has no TLS: ...".
  int post(const std::string& url, const std::string& content);
  int post(const std::string& url, const Parameters& params, const std::string& content);
  int get(const std::string& url);
  int get(const std::string& url, const Parameters& params);

  // Status and body of the last exchange.
  long getHttpCode() const { return httpCode; }
  std::pair<long, std::string> getResult() const { return {httpCode, responseBody}; }

  // Takes a connection from the pool, unless the client has one, and says whom it trusts: nobody is checked with
  // `ferrod.cloud.skip.cert.verification`, else the bundle `ferrod.cloud.cert.store` or the distribution's. Throws as
  // CloudCurlPool::getCurl, and CurlException.
  void getCurl(const std::string& userName, const std::string& programName);
  // Gives it back; without one nothing happens.
  void releaseCurl();

  // The proxy of every later hand-out of the pool.
  static void setProxy(const CloudProxyInfo& proxy);
  // Gives up the connector in use and takes the proxy setting anew; with a direct connection nothing changes. The
  // client's own connection keeps its proxy until it is given back. Throws lumo::CloudConnectorException "Can not get
  // ADAgent"; the pool's setting then stays.
  void resetProxy();

  // What goes over the connection: to standard error, or to the connection's trace. Throw CurlException.
  void setVerbose();
  void setDebugTrace();

 protected:
  // As get, for a URL that holds a secret: the log shows `masked` in its place.
  int getMasked(const std::string& url, const std::string& masked);

  CurlObject& heldCurl() const;
  // Takes the place of the last result, whose body is wiped: it may have held a code.
  void keep(std::pair<long, std::string> result);

  CurlObject* curl = nullptr;  // the pool's
  std::string cloudUrl;        // ends in "/"
  std::string podHost;         // host of the pod after a redirect
  std::string certStore;       // the bundle in use
  long httpCode = 0;
  std::string responseBody;

 private:
  int exchange(const std::string& url, const std::string& content, bool isPost);
};
