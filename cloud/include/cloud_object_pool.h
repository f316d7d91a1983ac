// The process's HTTP connections to the platform: handed out, bounded, taken back, and the web proxy they go through.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/include/mutex.h"
#include "base/include/shredder.h"
#include "cloud/include/cloud_exceptions.h"

class CurlObject;

// A web proxy as one record.
struct CloudProxyInfo {
  std::string proxyServer;  // host:port, empty for none
  std::string proxyAuth;    // a name of proxyAuthTypes, lower case
  std::string proxyUser;
  lumo::Shredder2 proxyPassword;
  bool proxyUsable = true;  // false: its authentication is not allowed in FIPS mode, so nobody goes through it
};

// What the pool notes of one connection. The names are for the report only: any free connection serves any user.
struct CloudConnEntry {
  bool occupied = false;
  time_t timestamp = 0;  // when it was last handed out, seconds since the epoch
  std::string userName;
  std::string programName;
};

// The one owner of the process's CurlObjects. Any thread; one recursive lock guards it all. Nothing is waited for under
// it: no exchange over HTTP, no question to the directory or to a KDC. Logs by "cloud.object".
class CloudCurlPool {
 public:
  // Built at the first call. At the end of the process its connections stay as they are: a thread may still hold one.
  static CloudCurlPool& getInstance();
  CloudCurlPool(const CloudCurlPool&) = delete;
  CloudCurlPool& operator=(const CloudCurlPool&) = delete;

  // Fills the two limits from the settings while they are 0: `ferrod.cloud.auth.conn.max` (or
  // `ferrod.cloud.auth.token.max`; 10 without either, at most `lumod.max.client.threads`, 20) and
  // `lumod.client.idle.timeout` (seconds, 900).
  void setConnProps();

  // A connection with the proxy of the last setProxy and the time zone of now, for the caller alone until releaseCurl.
  // It keeps cookies but no session, headers and trust settings from earlier use. With a proxy that wants
  // authentication the caller, and nobody else, waits for the directory and, with "negotiate", for the KDC; a setting
  // that changes in the meantime is followed. Throws lumo::CloudConnException "Failed to get CURL handle for
  // connection: connections exceeded." when as many as allowed are out, and CurlException when libcurl refuses or has
  // no memory, and what CurlObject::setProxy throws.
  CurlObject* getCurl(const std::string& userName, const std::string& programName);

  // Takes a connection back: proxy, credential, Kerberos state and session cookie of its user go, and the last reply.
  // Null does nothing. A connection that reapCurls took away meanwhile is destroyed here and changes nothing else: its
  // holder may use it up to this call.
  void releaseCurl(CurlObject* curl);

  // Takes every idle connection away, and those that are out for longer than the time limit.
  void reapCurls();

  // The proxy of every later hand-out; connections that are out keep theirs.
  void setProxy(const CloudProxyInfo& proxy);
  // A copy of that setting.
  CloudProxyInfo getProxy() const;

  // A report of the pool as text.
  std::string dump();

 private:
  friend struct CloudCurlPoolAccess;  // tests
  CloudCurlPool();
  ~CloudCurlPool();

  // A connection that is occupied for its caller, and what it is to be set up with.
  struct HandOut {
    CurlObject* curl = nullptr;
    std::string offset;  // of the time zone
    CloudProxyInfo proxy;
    std::uint64_t proxyChanges = 0;  // the setting's number
  };
  HandOut occupy(const std::string& userName, const std::string& programName);
  // The first idle connection, occupied with that entry, or null when there is none.
  CurlObject* occupyIdle(const CloudConnEntry& entry);
  CurlObject* occupyNew(const CloudConnEntry& entry);
  static void applyProxy(CurlObject& curl, const CloudProxyInfo& proxy);
  // Takes the setting of now; false where it is still the same.
  bool renewProxy(HandOut& handOut);
  // Destroys an occupied connection, or one that was taken away.
  void drop(CurlObject* curl);
  void dropTaken(CurlObject* curl);
  // Worked out once a second and zone.
  const std::string& timeZoneOffset(std::time_t current);

  // The offset of the second and the zone (TZ) for which it was asked last.
  struct ZoneOffset {
    std::time_t asked = 0;
    std::string zone;
    std::string text;
  };

  std::uint64_t maxConnections = 0;
  std::uint64_t occupiedCount = 0;
  std::int32_t occupiedTimeout = 0;
  std::string proxyServer;
  std::string proxyAuth;
  std::string proxyUser;
  lumo::Shredder2 proxyPassword;
  bool proxyUsable = true;
  std::uint64_t proxyChanges = 0;  // how often the setting became another one
  // Owned: in order of address, which is the order of the numbers in log and report.
  std::map<CurlObject*, CloudConnEntry> connections;
  // Taken away while their holders may still use them: they belong to no count any more and go when they are released.
  std::vector<std::unique_ptr<CurlObject>> taken;
  ZoneOffset zoneOffset;
};
