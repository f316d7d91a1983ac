#include "cloud/include/cloud_object_pool.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <new>
#include <utility>

#include "basalt/process/clock.h"
#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/printable.h"
#include "base/include/properties.h"
#include "base/include/string_helpers.h"
#include "cloud/include/curl_object.h"

namespace {

constexpr std::int32_t DEFAULT_CONNECTIONS = 10;
constexpr std::int32_t DEFAULT_BOUND = 20;
constexpr std::int32_t DEFAULT_TIMEOUT = 900;  // seconds
// So often a connection gets the proxy of a setting that changes meanwhile. The last one counts as handed out before.
constexpr int MAX_ROUNDS = 3;

lumo::Mutex poolMutex;

boost::shared_ptr<lumo::Logger> logger() { return getLogger("cloud.object", false); }

time_t now() { return std::chrono::system_clock::to_time_t(lumo::Clock::getInstance().now()); }

std::int32_t wholeNumber(const std::string& text) {
  return static_cast<std::int32_t>(std::strtol(text.c_str(), nullptr, 10));
}

std::int32_t connectionLimit() {
  const lumo::Properties& settings = lumo::Props(false, false);
  const std::string boundText = settings.getProperty(lumo::PN::LUMOD_MAX_CLIENT_THREADS);
  const std::int32_t bound = boundText.empty() ? DEFAULT_BOUND : wholeNumber(boundText);
  std::string text = settings.getProperty(lumo::PN::FERROD_CLOUD_AUTH_CONN_MAX);
  if (text.empty()) text = settings.getProperty(lumo::PN::FERROD_CLOUD_AUTH_TOKEN_MAX);
  const std::int32_t value = text.empty() ? DEFAULT_CONNECTIONS : wholeNumber(text);
  if (value >= 0 && value <= bound) return value;
  LUMO_LOG(logger(), lumo::level::Error, "Illegal value for %s: %d. Using %d.", lumo::PN::FERROD_CLOUD_AUTH_CONN_MAX,
           value, DEFAULT_CONNECTIONS);
  return DEFAULT_CONNECTIONS;
}

std::int32_t occupationLimit() {
  const lumo::Properties& settings = lumo::Props(false, false);
  auto value = static_cast<std::int32_t>(settings.getTime(lumo::PN::LUMOD_CLIENT_IDLE_TIMEOUT, 's', DEFAULT_TIMEOUT));
  // getTime takes the default for a number below 0 without a word.
  const std::string text = settings.getProperty(lumo::PN::LUMOD_CLIENT_IDLE_TIMEOUT);
  if (text.rfind('-', 0) == 0 && wholeNumber(text) < 0) value = wholeNumber(text);
  if (value >= 0) return value;
  LUMO_LOG(logger(), lumo::level::Error, "Illegal value for %s: %d. Using %d", lumo::PN::LUMOD_CLIENT_IDLE_TIMEOUT,
           value, DEFAULT_TIMEOUT);
  return DEFAULT_TIMEOUT;
}

// Minutes, positive west of Greenwich.
std::string offsetAt(time_t current) {
  tm utc{};
  gmtime_r(&current, &utc);
  utc.tm_isdst = -1;
  const auto seconds = static_cast<std::int32_t>(std::difftime(std::mktime(&utc), current));
  return itoa(seconds / 60, 10);
}

// Nothing set is not the same as an empty text, which means Greenwich.
std::string zoneInForce() {
  const char* zone = std::getenv("TZ");
  return zone == nullptr ? std::string(1, '\0') : std::string(zone);
}

const char* yesOrNo(bool value) { return value ? "Yes" : "No"; }

}  // namespace

CloudCurlPool& CloudCurlPool::getInstance() {
  const lumo::Lock lock(poolMutex);
  static CloudCurlPool pool;
  return pool;
}

CloudCurlPool::CloudCurlPool() = default;

// Threads that still run may hold connections, so none is destroyed; they stay reachable, which tells a leak checker
// that they were left on purpose.
CloudCurlPool::~CloudCurlPool() {
  struct Left {
    decltype(connections) inPool;
    decltype(taken) outside;
  };
  const lumo::Lock lock(poolMutex);
  [[gnu::used]] static const Left* const left = new (std::nothrow) Left{std::move(connections), std::move(taken)};
  connections.clear();
}

// The library looks at the zone's file each time, which takes as long as the rest of a hand-out.
const std::string& CloudCurlPool::timeZoneOffset(time_t current) {
  std::string zone = zoneInForce();
  if (zoneOffset.text.empty() || current != zoneOffset.asked || zone != zoneOffset.zone) {
    zoneOffset = {current, std::move(zone), offsetAt(current)};
  }
  return zoneOffset.text;
}

void CloudCurlPool::setConnProps() {
  const lumo::Lock lock(poolMutex);
  if (maxConnections == 0) {
    maxConnections = static_cast<std::uint64_t>(connectionLimit());
    LUMO_LOG(logger(), lumo::level::Debug, "Set max CURL connections number to: %d.", static_cast<int>(maxConnections));
  }
  if (occupiedTimeout == 0) {
    occupiedTimeout = occupationLimit();
    LUMO_LOG(logger(), lumo::level::Debug, "Set max CURL connection occupied timeout to : %d(s).", occupiedTimeout);
  }
}

CurlObject* CloudCurlPool::getCurl(const std::string& userName, const std::string& programName) {
  HandOut handOut = occupy(userName, programName);
  try {
    handOut.curl->headers["X-TZOFF"] = handOut.offset;
    for (int round = 1;; ++round) {
      applyProxy(*handOut.curl, handOut.proxy);
      if (round == MAX_ROUNDS || !renewProxy(handOut)) return handOut.curl;
    }
  } catch (...) {
    // Half set up, it might go on with a proxy's user; and nobody has it, so that it must not count as occupied.
    drop(handOut.curl);
    throw;
  }
}

CloudCurlPool::HandOut CloudCurlPool::occupy(const std::string& userName, const std::string& programName) {
  const lumo::Lock lock(poolMutex);
  const auto log = logger();
  setConnProps();
  LUMO_LOG(log, lumo::level::Debug, "Getting CURL connection for cloud auth.");
  if (occupiedCount >= maxConnections) reapCurls();
  if (occupiedCount >= maxConnections) {
    LUMO_THROW(lumo::CloudConnException, -1, "Failed to get CURL handle for connection: connections exceeded.");
  }
  const time_t current = now();
  HandOut handOut{nullptr, timeZoneOffset(current), getProxy(), proxyChanges};
  LUMO_LOG(log, lumo::level::Debug, "Getting CURL connection with timezone offset: '%s' ", handOut.offset.c_str());
  const CloudConnEntry entry{true, current, userName, programName};
  handOut.curl = occupyIdle(entry);
  if (handOut.curl == nullptr) handOut.curl = occupyNew(entry);
  ++occupiedCount;
  return handOut;
}

CurlObject* CloudCurlPool::occupyIdle(const CloudConnEntry& entry) {
  if (occupiedCount >= connections.size()) return nullptr;
  const auto free =
      std::find_if(connections.begin(), connections.end(), [](const auto& one) { return !one.second.occupied; });
  if (free == connections.end()) return nullptr;
  if (free->first == nullptr) {
    LUMO_THROW(lumo::CloudConnException, -1, "Failed to get CURL handle for connection: data corrupted.");
  }
  free->second = entry;
  LUMO_LOG(logger(), lumo::level::Debug, "Got CURL connection:(%d) for cloud auth.",
           static_cast<int>(std::distance(connections.begin(), free)));
  return free->first;
}

CurlObject* CloudCurlPool::occupyNew(const CloudConnEntry& entry) {
  auto curl = std::make_unique<CurlObject>();
  LUMO_LOG(logger(), lumo::level::Debug, "Allocated new CURL connection:(%d) for cloud auth.",
           static_cast<int>(connections.size()));
  curl->headers["Content-Type"] = "application/json";
  curl->headers["X-MORVANE-NATIVE-CLIENT"] = "1";
  curl->headers["X-MRV-SRC"] = "QRS";
  connections.emplace(curl.get(), entry);
  return curl.release();
}

// Without the lock: the directory may be asked for the proxy's service name, the KDC for a ticket.
void CloudCurlPool::applyProxy(CurlObject& curl, const CloudProxyInfo& proxy) {
  LUMO_LOG(logger(), lumo::level::Debug, "Set CURL web proxy to: '%s' with auth: '%s'.", proxy.proxyServer.c_str(),
           proxy.proxyAuth.c_str());
  curl.setProxy(proxy.proxyServer, proxy.proxyAuth, proxy.proxyUser, proxy.proxyPassword);
}

bool CloudCurlPool::renewProxy(HandOut& handOut) {
  const lumo::Lock lock(poolMutex);
  if (proxyChanges == handOut.proxyChanges) return false;
  handOut.proxyChanges = proxyChanges;
  handOut.proxy = getProxy();
  return true;
}

void CloudCurlPool::drop(CurlObject* curl) {
  const lumo::Lock lock(poolMutex);
  if (connections.erase(curl) == 0) return dropTaken(curl);
  --occupiedCount;
  delete curl;
}

void CloudCurlPool::dropTaken(CurlObject* curl) {
  taken.erase(std::remove_if(taken.begin(), taken.end(), [curl](const auto& one) { return one.get() == curl; }),
              taken.end());
}

void CloudCurlPool::releaseCurl(CurlObject* curl) {
  if (curl == nullptr) return;
  const lumo::Lock lock(poolMutex);
  const auto found = connections.find(curl);
  if (found == connections.end()) return dropTaken(curl);
  try {
    curl->forgetExchange();
    curl->clearProxy(true);
    // Whoever gets the connection next must not act with it.
    curl->forgetSession();
  } catch (...) {
    // With something of its user left in it nobody else may get it.
    drop(curl);
    throw;
  }
  LUMO_LOG(logger(), lumo::level::Debug, "Release CURL connection:(%d) after cloud auth using.",
           static_cast<int>(std::distance(connections.begin(), found)));
  found->second.occupied = false;
  --occupiedCount;
}

void CloudCurlPool::reapCurls() {
  const lumo::Lock lock(poolMutex);
  const auto log = logger();
  LUMO_LOG(log, lumo::level::Debug, "Free CURL connections now.");
  for (auto one = connections.begin(); one != connections.end();) {
    const CloudConnEntry& entry = one->second;
    if (entry.occupied && now() - entry.timestamp <= occupiedTimeout) {
      ++one;
      continue;
    }
    LUMO_LOG(log, lumo::level::Debug, "Freed idle/expired CURL connection with timestamp: (%d)",
             static_cast<int>(entry.timestamp));
    std::unique_ptr<CurlObject> curl(one->first);
    if (entry.occupied) {
      --occupiedCount;
      taken.push_back(std::move(curl));
    }
    one = connections.erase(one);
  }
}

void CloudCurlPool::setProxy(const CloudProxyInfo& proxy) {
  CloudProxyInfo copy = proxy;
  const lumo::Lock lock(poolMutex);
  // The same once more is no reason to set up again a connection that is about to be handed out.
  if (proxyServer != copy.proxyServer || proxyAuth != copy.proxyAuth || proxyUser != copy.proxyUser ||
      proxyPassword != copy.proxyPassword) {
    ++proxyChanges;
  }
  proxyServer = std::move(copy.proxyServer);
  proxyAuth = std::move(copy.proxyAuth);
  proxyUser = std::move(copy.proxyUser);
  proxyPassword = std::move(copy.proxyPassword);
  proxyUsable = copy.proxyUsable;
  LUMO_LOG(logger(), lumo::level::Debug, "Set cloud web proxy to: '%s' with auth: '%s'.", proxyServer.c_str(),
           proxyAuth.c_str());
}

CloudProxyInfo CloudCurlPool::getProxy() const {
  const lumo::Lock lock(poolMutex);
  CloudProxyInfo proxy;
  proxy.proxyServer = proxyServer;
  proxy.proxyAuth = proxyAuth;
  proxy.proxyUser = proxyUser;
  proxy.proxyPassword = proxyPassword;
  proxy.proxyUsable = proxyUsable;
  return proxy;
}

std::string CloudCurlPool::dump() {
  const lumo::Lock lock(poolMutex);
  std::string report = "==============Morvane MFA Service Connections Info============\n";
  const auto line = [&report](const char* label, const std::string& value) {
    report.append(label).append(lumo::printable(value)).append("\n");
  };
  line("Morvane MFA Service Connections maximum: ", uitoa(maxConnections, 10));
  line("Current count: ", uitoa(connections.size(), 10));
  line("Current occupied count: ", uitoa(occupiedCount, 10));
  line("Current timestamp: ", uitoa(static_cast<std::uint32_t>(now()), 10));
  line("Connections: ", "");
  unsigned position = 0;
  for (const auto& [curl, entry] : connections) {
    line("   Connection: ", uitoa(position++, 10));
    line("       User name: ", entry.userName);
    line("       Program name: ", entry.programName);
    line("       Occupied: ", yesOrNo(entry.occupied));
    line("       Expired: ", yesOrNo(now() - entry.timestamp > occupiedTimeout));
  }
  return report;
}
