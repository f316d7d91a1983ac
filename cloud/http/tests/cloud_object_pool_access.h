// What is private in the pool, for tests.
#pragma once

#include <initializer_list>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cloud/include/cloud_object_pool.h"
#include "cloud/include/curl_object.h"
#include "testsupport/failure_of.h"
#include "testsupport/setting.h"

// The process's pool, empty and without limits at the beginning and at the end of the scope.
struct CloudCurlPoolAccess {
  CloudCurlPoolAccess() { reset(); }
  ~CloudCurlPoolAccess() { reset(); }
  CloudCurlPoolAccess(const CloudCurlPoolAccess&) = delete;
  CloudCurlPoolAccess& operator=(const CloudCurlPoolAccess&) = delete;

  CloudCurlPool& pool = CloudCurlPool::getInstance();

  std::uint64_t& maxConnections = pool.maxConnections;
  std::uint64_t& occupiedCount = pool.occupiedCount;
  std::int32_t& occupiedTimeout = pool.occupiedTimeout;
  std::string& proxyServer = pool.proxyServer;
  std::string& proxyAuth = pool.proxyAuth;
  std::string& proxyUser = pool.proxyUser;
  lumo::Shredder2& proxyPassword = pool.proxyPassword;
  bool& proxyUsable = pool.proxyUsable;
  std::map<CurlObject*, CloudConnEntry>& connections = pool.connections;
  std::vector<std::unique_ptr<CurlObject>>& taken = pool.taken;

  void reset() {
    for (const auto& [curl, entry] : pool.connections) delete curl;
    pool.connections.clear();
    pool.taken.clear();
    pool.maxConnections = pool.occupiedCount = 0;
    pool.occupiedTimeout = 0;
    pool.setProxy(CloudProxyInfo());
  }
};

// Settings of this process for the scope.
class SettingsScope {
 public:
  using Setting = std::pair<std::string, std::string>;
  SettingsScope(std::initializer_list<Setting> settings) : SettingsScope(std::vector<Setting>(settings)) {}
  explicit SettingsScope(const std::vector<Setting>& settings) {
    for (const auto& [key, value] : settings) m_settings.emplace_back(key, value);
  }

 private:
  std::list<testsupport::Setting> m_settings;
};

inline CloudProxyInfo proxyInfo(const std::string& server, const std::string& auth = {}, const std::string& user = {},
                                const std::string& password = {}) {
  CloudProxyInfo proxy;
  proxy.proxyServer = server;
  proxy.proxyAuth = auth;
  proxy.proxyUser = user;
  proxy.proxyPassword = lumo::Shredder2(password);
  return proxy;
}

// The records of one logger as "LEVEL TEXT".
inline std::vector<std::string> recordsOf(const std::vector<std::string>& texts, const std::string& logger) {
  std::vector<std::string> records;
  const std::string name = " " + logger + ": ";
  for (const std::string& text : texts) {
    const std::string::size_type at = text.find(name);
    if (at != std::string::npos) records.push_back(text.substr(0, at) + " " + text.substr(at + name.size()));
  }
  return records;
}

using testsupport::failureOf;
