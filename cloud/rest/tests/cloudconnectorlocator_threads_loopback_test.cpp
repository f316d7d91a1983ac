// Clients of every kind at once beside the refresh, over a directory that comes and goes. FERRO_SOAK_SECONDS makes it
// a long run.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <set>
#include <thread>

#include "basalt/run_queue.h"
#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/include/opx.h"
#include "cloud/rest/tests/cloud_object_client.h"
#include "cloud/route/tests/cloudconnectorlocator_forest.h"
#include "cloud/route/tests/cloudconnectorlocator_whole_report.h"
#include "testsupport/fast_clock.h"
#include "testsupport/http_server.h"
#include "testsupport/private_host.h"
#include "testsupport/watchdog.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::Each;
using testing::HasSubstr;
using testing::Not;
using testsupport::HttpRequest;
using testsupport::HttpServer;
using testsupport::MemoryDirectory;

constexpr int CLIENTS = 8;
constexpr int LIMIT = 6;
constexpr char BODY[] = "{\"success\":true}";
constexpr int LDAP_IS_BUSY = 51;

seconds duration() {
  const char* const given = std::getenv("FERRO_SOAK_SECONDS");  // NOLINT(concurrency-mt-unsafe): one thread so far
  return seconds(given != nullptr ? std::max(1, std::atoi(given)) : 3);
}

// The state of the connectors goes to a host of the test's own. Without root it cannot be written at all, which every
// caller has to live with.
struct PrivateState {
  PrivateState() {
    if (geteuid() != 0) return;
    static const bool entered = (testsupport::enterPrivateHost(), true);
    testsupport::cleanPrivateHost();
    static_cast<void>(entered);
  }
};

class ConnectorThreads : private PrivateState, public testing::Test {
 protected:
  ConnectorThreads() {
    CloudConnectorLocatorAccess::resetProcess();
    UpdateCloudHttpProxy();
    for (int i = 0; i < 12; ++i) names.push_back("conn" + std::to_string(i));
    for (const auto& name : names) {
      fqdns.insert(fqdnOf(name));
      directory.add(locatortest::computerDn(name), {{AD_CN, {name}},
                                                    {AD_OBJECT_CLASS, {"computer"}},
                                                    {"objectCategory", {"computer"}},
                                                    {AD_DNS_NAME, {fqdnOf(name)}}});
      appear(name);
    }
  }
  ~ConnectorThreads() override { CloudConnectorLocatorAccess::resetProcess(); }

  static std::string fqdnOf(const std::string& name) { return name + ".localhost"; }
  // Both sites, both services, one service only, another platform, and one that is no use at all.
  locatortest::Keywords keywordsOf(const std::string& name) const {
    const int number = std::atoi(name.c_str() + 4);
    auto keywords = locatortest::with(locatortest::bothServices(number == 11 ? "http://other.localhost/" : pod,
                                                                number % 2 == 0 ? "Berlin" : "Hamburg"),
                                      "morvane.core.webproxy.port", std::to_string(server.port()).c_str());
    if (number == 8) return locatortest::with(keywords, "morvane.core.iwa.enabled", "False");
    if (number == 9) return locatortest::with(keywords, "morvane.core.webproxyenabled", "False");
    if (number == 10) return locatortest::with(keywords, "morvane.mobile.proxyScp", "no");
    return keywords;
  }
  void appear(const std::string& name) {
    directory.add(locatortest::connectorDn(name),
                  {{AD_CN, {"proxy"}}, {AD_OBJECT_CLASS, {"serviceConnectionPoint"}}, {AD_KEYWORDS, keywordsOf(name)}});
  }

  void require(bool holds, const std::string& what) {
    if (holds) return;
    ADD_FAILURE() << what;
    stop = true;
  }
  // "" or "FQDN:PORT" of a connector.
  void requireConnector(const std::string& given, const char* from) {
    const std::string port = ":" + std::to_string(server.port());
    const std::size_t colon = given.find(':');
    require(given.empty() || (fqdns.count(given.substr(0, colon)) == 1 && given.substr(colon) == port),
            std::string(from) + " gave '" + given + "'");
    ++(given.empty() ? none : taken);
  }
  bool isConfigured(const std::string& proxy) const {
    return proxy == "gate.localhost:" + std::to_string(server.port());
  }

  void client(std::size_t self);
  void exchange(std::size_t self, std::mt19937& random);
  void askForIwa();
  void askForServiceName(std::mt19937& random);
  void readReports();
  void readConnectors();
  void readPoolReport();
  void weather(std::mt19937& random);
  // Each kind of thing at least once?
  bool allHappened();

  testsupport::FastClock clock;
  // Every connector's proxy, and the platform behind it.
  HttpServer server{[](const HttpRequest& request) {
    return request.method() == "CONNECT" ? testsupport::tunnelReply() : testsupport::httpReply("200 OK", {}, BODY);
  }};
  const std::string pod = "http://pod.localhost:" + std::to_string(server.port()) + "/";
  const SettingsScope settings{{lumo::PN::ZONE_HIERARCHICAL, "true"},
                               {lumo::PN::ZONE_CLOUDURL, pod},
                               {lumo::PN::CLOUD_REST_VERSION, "1.0"},
                               {lumo::PN::CLOUD_CONNECTOR_RECOVER_INTERVAL, "1s"},
                               {lumo::PN::CLOUD_CONNECTOR_REFRESH_INTERVAL, "2s"},
                               {lumo::PN::LUMOD_CLIENT_IDLE_TIMEOUT, "100000"},
                               {lumo::PN::FERROD_CLOUD_AUTH_CONN_MAX, std::to_string(LIMIT)},
                               {lumo::PN::CLOUD_PROXY_SERVER, ""}};
  testsupport::FakeCredentialSource credentials;
  MemoryDirectory directory{"forest.test"};
  testsupport::DirectoryInForce inForce{directory};
  testsupport::LogCapture log{"ERROR"};
  locatortest::AgentInForce agent;
  CloudCurlPoolAccess pool;

  std::vector<std::string> names;
  std::set<std::string> fqdns;
  std::atomic<bool> stop{false};
  std::atomic<int> holders{0};
  std::atomic<long> taken{0}, none{0}, exchanges{0}, refused{0}, discards{0}, iwaUrls{0}, lookups{0}, lookupFailures{0},
      reports{0};
  long searches = 0, failures = 0;
  testsupport::Watchdog watchdog{CLIENTS + 1};
};

void ConnectorThreads::exchange(std::size_t self, std::mt19937& random) {
  PlainClient client(pod);
  try {
    client.getCurl("user" + std::to_string(self), "threads");
  } catch (const lumo::CloudConnException& failure) {
    require(failure.what() == std::string("Failed to get CURL handle for connection: connections exceeded."),
            failure.what());
    ++refused;
    return;
  }
  require(++holders <= LIMIT, "more connections are out than allowed");
  try {
    client.connection()->setOpt(CURLOPT_TIMEOUT, 30 * testsupport::FastClock::FACTOR);
    client.get(pod + "path");
    require(client.getResult() == std::make_pair(200L, std::string(BODY)),
            "the reply is '" + client.getResult().second + "'");
    ++exchanges;
    if (random() % 4 == 0) {
      watchdog.tell(self, "resetProxy");
      client.resetProxy();
      ++discards;
    }
  } catch (...) {
    --holders;
    throw;
  }
  --holders;
  client.releaseCurl();
}

void ConnectorThreads::askForIwa() {
  std::string spn;
  const std::string url = CloudConnectorLocator::getInstance(pod)->getIwaUrl(spn);
  if (url.empty()) return;
  const std::string host = getFqdnFromUrl(url);
  require(fqdns.count(host) == 1 && url == "https://" + host + ":8443/", "the IWA URL is '" + url + "'");
  require(spn == "HTTP/" + host + "@FOREST.TEST", "the service name is '" + spn + "' for " + url);
  ++iwaUrls;
}

// A client's own search, without the locator's lock.
void ConnectorThreads::askForServiceName(std::mt19937& random) {
  const bool known = random() % 2 == 0;
  const std::string host = known ? fqdnOf(names[random() % names.size()]) : fqdnOf("nobody" + std::to_string(random()));
  try {
    const std::string spn = GetSPNFromIwaURL("https://" + host + ":8443/");
    require(spn == (known ? "HTTP/" + host + "@FOREST.TEST" : ""), "the service name of " + host + " is '" + spn + "'");
    ++lookups;
  } catch (const LDAPException&) {
    ++lookupFailures;
  }
}

void ConnectorThreads::readReports() {
  const std::string fault = locatortest::faultOfReport(dumpCloudConnectors(), fqdns);
  require(fault.empty(), fault);
  ++reports;
}

void ConnectorThreads::readConnectors() {
  std::vector<CloudConnectorInfo> infos;
  CloudConnectorLocator::getInstance(pod)->getConnectors("", infos);
  int inUse = 0;
  for (const auto& info : infos) {
    require(fqdns.count(info.fqdn) == 1 && info.tenantId == "TENANT", "getConnectors tells of '" + info.fqdn + "'");
    require(info.inUse == 0 || info.state == 0, "a discarded or invalid connector is in use");
    inUse += info.inUse;
  }
  require(inUse <= 1, "several connectors are in use");
  ++reports;
}

void ConnectorThreads::readPoolReport() {
  const std::string fault = locatortest::faultOfPoolReport(CloudCurlPool::getInstance().dump(), LIMIT);
  require(fault.empty(), fault);
  ++reports;
}

void ConnectorThreads::client(std::size_t self) {
  std::mt19937 random(static_cast<unsigned>(self));
  const auto step = [&](const char* what) { watchdog.tell(self, what); };
  while (!stop) {
    try {
      switch (random() % 10) {
        case 0:
        case 1:
          step("getCloudConnector");
          requireConnector(CloudConnectorLocator::getInstance(pod)->getCloudConnector(), "getCloudConnector");
          break;
        case 2:
        case 3:
        case 4:
          step("an exchange");
          exchange(self, random);
          break;
        case 5: {
          step("getCloudHttpProxy");
          const CloudProxyInfo proxy = getCloudHttpProxy(pod);
          if (!isConfigured(proxy.proxyServer)) requireConnector(proxy.proxyServer, "getCloudHttpProxy");
          CloudBase::setProxy(proxy);
          break;
        }
        case 6:
          step("discardCurrentCloudConnector");
          CloudConnectorLocator::getInstance(pod)->discardCurrentCloudConnector();
          ++discards;
          break;
        case 7:
          step("getIwaUrl");
          askForIwa();
          step("GetSPNFromIwaURL");
          askForServiceName(random);
          break;
        case 8:
          step("dump");
          readReports();
          readPoolReport();
          break;
        default:
          step("getConnectors");
          readConnectors();
          break;
      }
    } catch (const std::exception& failure) {
      require(false, std::string("a client failed: ") + failure.what());
    }
  }
  step("ended");
}

// The directory, the zone and the configuration change their mind.
void ConnectorThreads::weather(std::mt19937& random) {
  using Kind = MemoryDirectory::Failure::Kind;
  constexpr MemoryDirectory::Servers WHICH[] = {MemoryDirectory::Servers::Catalogue, MemoryDirectory::Servers::Domain,
                                                MemoryDirectory::Servers::All};
  const auto which = WHICH[random() % 3];
  const std::string& name = names[random() % names.size()];
  lumo::Properties& properties = lumo::Props(false, true);
  switch (random() % 12) {
    case 0:
      directory.failOpen({Kind::NoServers, -1, {}}, -1, which);
      break;
    case 1:
      directory.failSearch({Kind::Server, LDAP_IS_BUSY, "Server is busy"}, 1, which);
      break;
    case 2:
      directory.failSearch({Kind::Gone, -1, {}}, 1, which);
      break;
    case 3:
      directory.failSearch({Kind::Server, 50, "Insufficient access"}, 1, which);
      break;
    case 4:
      directory.remove(locatortest::connectorDn(name));
      break;
    case 5:
      directory.setSite(random() % 2 == 0 ? "Berlin" : "Hamburg");
      break;
    case 6:
      properties.setProperty(lumo::PN::CLOUD_REST_VERSION, random() % 2 == 0 ? "1.0" : "2.0");
      break;
    case 7:
      properties.setProperty(lumo::PN::CLOUD_PROXY_SERVER,
                             random() % 2 == 0 ? "gate.localhost:" + std::to_string(server.port()) : std::string());
      UpdateCloudHttpProxy();
      break;
    case 8:
      appear(name);
      break;
    default:
      directory.clearFailures();
      break;
  }
  searches += static_cast<long>(directory.searches().size());
  directory.forgetQuestions();
  server.forgetRequests();
}

bool ConnectorThreads::allHappened() {
  failures = 0;
  for (const auto& record : log.texts()) failures += record.find("Fail to refresh") != std::string::npos ? 1 : 0;
  for (const long count : {taken.load(), exchanges.load(), discards.load(), iwaUrls.load(), lookups.load(),
                           lookupFailures.load(), reports.load(), searches, failures}) {
    if (count == 0) return false;
  }
  return true;
}

TEST_F(ConnectorThreads, NeitherStopNorMixUpWhatTheySee) {
  const auto queue = lumo::RunQueue::getRunQueue(lumo::MAIN_RUN_QUEUE, true, 2);
  UpdateCloudConnectors();
  std::vector<std::thread> clients;
  clients.reserve(CLIENTS);
  for (std::size_t i = 0; i < CLIENTS; ++i) clients.emplace_back([this, i] { client(i); });
  std::mt19937 random(CLIENTS);
  // On a busy machine the time may be over before each kind of thing has happened once.
  const auto end = std::chrono::steady_clock::now() + duration();
  const auto goesOn = [&] {
    const auto now = std::chrono::steady_clock::now();
    return now < end || (now < end + std::chrono::seconds(60) && !allHappened());
  };
  while (!stop && goesOn()) {
    weather(random);
    std::this_thread::sleep_for(milliseconds(10));
  }
  stop = true;
  for (auto& one : clients) one.join();
  watchdog.tell(CLIENTS, "shutting the queue down");
  lumo::RunQueue::shutdownAll();
  watchdog.tell(CLIENTS, "ended");

  EXPECT_EQ(pool.occupiedCount, 0u);
  EXPECT_THAT(log.texts(), Each(Not(HasSubstr("base.queue"))));
  EXPECT_TRUE(allHappened()) << "see the counts";
  std::printf(
      "%d s: %ld steps of %d clients: %ld connectors taken and %ld times none, %ld exchanges and %ld times no "
      "connection "
      "free, %ld connectors given up, %ld IWA URLs, %ld lookups and %ld that failed, %ld reports; %ld directory "
      "searches, %ld refreshes that failed\n",
      static_cast<int>(duration().count()), watchdog.steps(), CLIENTS, taken.load(), none.load(), exchanges.load(),
      refused.load(), discards.load(), iwaUrls.load(), lookups.load(), lookupFailures.load(), reports.load(), searches,
      failures);
}

}  // namespace
