// Times the pool of connections: one hand-out and return, the proxy set up included, with 20 connections in the pool.
//
// usage: pool [BATCHES]
// A line for each state of the pool and kind of proxy: name, median and best time of a pair in microseconds over so
// many batches (50), separated by tabs. It is the processor's time, which other work on the machine hardly changes.
// Needs neither network nor domain: the directory is one that knows nobody. In a lab the domain is the lab's, the
// process has an agent, the proxy asks for Negotiate and the machine answers; further lines give the first hand-out,
// which asks the directory, and the later ones without their return, both by the clock on the wall.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "basalt/ad_agent.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "bench/nobody.h"
#include "bench/rounds.h"
#include "cloud/include/cloud_object_pool.h"

namespace {

constexpr int CONNECTIONS = 20;
constexpr int PAIRS = 2000;      // of one batch
constexpr int HAND_OUTS = 5000;  // each timed by itself
constexpr char USER[] = "alice@CORP.EXAMPLE.TEST";

CloudProxyInfo proxyOf(const char* server, const char* auth) {
  CloudProxyInfo proxy;
  proxy.proxyServer = server;
  proxy.proxyAuth = auth;
  if (*auth != '\0') {
    proxy.proxyUser = "alice";
    proxy.proxyPassword = lumo::Shredder2("secret");
  }
  return proxy;
}

double microsecondsOfAPair(CloudCurlPool& pool) {
  const double start = secondsSoFar();
  for (int i = 0; i < PAIRS; ++i) pool.releaseCurl(pool.getCurl(USER, "login"));
  return (secondsSoFar() - start) * 1e6 / PAIRS;
}

void measure(const std::string& name, const CloudProxyInfo& proxy, int batches) {
  CloudCurlPool& pool = CloudCurlPool::getInstance();
  pool.setProxy(proxy);
  std::vector<double> times;
  microsecondsOfAPair(pool);
  for (int i = 0; i < batches; ++i) times.push_back(microsecondsOfAPair(pool));
  std::sort(times.begin(), times.end());
  std::printf("%-40s\t%.2f\t%.2f\n", name.c_str(), times[times.size() / 2], times.front());
}

void measureAll(const std::string& state, int batches) {
  measure(state + ", direct", proxyOf("", ""), batches);
  measure(state + ", connector", proxyOf("connector.corp.example.test:8080", ""), batches);
  measure(state + ", proxy with basic", proxyOf("proxy.corp.example.test:8080", "basic"), batches);
}

void printTimes(const std::string& name, const std::vector<double>& times) {
  std::printf("%-40s\t%.2f\t%.2f\n", name.c_str(), median(times), quantile(times, 0));
}

// The proxy's name is known after the first one. With "negotiate" each also looks at keytab and cache of the machine.
void measureInAgent(const std::string& state, const CloudProxyInfo& proxy, int batches) {
  CloudCurlPool& pool = CloudCurlPool::getInstance();
  const std::string name = state + ", " + proxy.proxyAuth;
  measure(name, proxy, batches);
  std::vector<double> times;
  for (int i = 0; i < HAND_OUTS; ++i) {
    CurlObject* curl = nullptr;
    times.push_back(microseconds([&] { curl = pool.getCurl(USER, "login"); }));
    pool.releaseCurl(curl);
  }
  printTimes(name + ", hand-out alone", times);
}

// Both states of the pool, first with all connections but one handed out.
template <typename Measure>
void inBothStates(const Measure& measureState) {
  CloudCurlPool& pool = CloudCurlPool::getInstance();
  std::vector<CurlObject*> out;
  out.reserve(CONNECTIONS);
  for (int i = 0; i < CONNECTIONS; ++i) out.push_back(pool.getCurl("alice", "login"));
  std::sort(out.begin(), out.end());
  pool.releaseCurl(out.back());
  out.pop_back();
  measureState("19 of 20 out");
  for (CurlObject* one : out) pool.releaseCurl(one);
  measureState("20 idle");
}

void withoutADomain(int batches) {
  testsupport::EmptyDirectory directory;
  NobodysTickets tickets;
  inBothStates([batches](const std::string& state) { measureAll(state, batches); });
}

void withAnAgent(const char* server, int batches) {
  const RunningAgent agent{ADAgent::Options()};
  CloudProxyInfo proxy = proxyOf(server, "anyauth");
  proxy.proxyUser = MACHINE_MARKER;
  CloudCurlPool& pool = CloudCurlPool::getInstance();
  pool.setProxy(proxy);
  std::vector<double> first;
  first.push_back(microseconds([&] { pool.releaseCurl(pool.getCurl(USER, "login")); }));
  printTimes("first hand-out, anyauth", first);
  inBothStates([&](const std::string& state) {
    for (const char* type : {"anyauth", "negotiate"}) {
      proxy.proxyAuth = type;
      measureInAgent(state, proxy, batches);
    }
  });
  pool.reapCurls();
}

}  // namespace

int main(int argc, char** argv) {
  const int batches = argc > 1 ? std::atoi(argv[1]) : 50;
  if (batches < 1) {
    std::fprintf(stderr, "usage: pool [BATCHES]\n");
    return 2;
  }
  lumo::Props(false, true).setProperty(lumo::PN::FERROD_CLOUD_AUTH_CONN_MAX, std::to_string(CONNECTIONS));
  const char* const server = std::getenv("FERRO_LAB_PROXY_NEGOTIATE");
  try {
    server != nullptr ? withAnAgent(server, batches) : withoutADomain(batches);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
  return 0;
}
