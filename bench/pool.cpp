// Times the pool of connections: one hand-out and return, the proxy set up included, with 20 connections in the pool.
//
// usage: pool [BATCHES]
// A line for each state of the pool and kind of proxy: name, median and best time of a pair in microseconds over so
// many batches (50), separated by tabs. It is the processor's time, which other work on the machine hardly changes.
// Needs neither network nor domain: the directory is one that knows nobody.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "bench/nobody.h"
#include "cloud/include/cloud_object_pool.h"

namespace {

constexpr int CONNECTIONS = 20;
constexpr int PAIRS = 2000;  // of one batch

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
  for (int i = 0; i < PAIRS; ++i) pool.releaseCurl(pool.getCurl("alice@CORP.EXAMPLE.TEST", "login"));
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

}  // namespace

int main(int argc, char** argv) {
  const int batches = argc > 1 ? std::atoi(argv[1]) : 50;
  if (batches < 1) {
    std::fprintf(stderr, "usage: pool [BATCHES]\n");
    return 2;
  }
  testsupport::EmptyDirectory directory;
  NobodysTickets tickets;
  lumo::Props(false, true).setProperty(lumo::PN::FERROD_CLOUD_AUTH_CONN_MAX, std::to_string(CONNECTIONS));
  CloudCurlPool& pool = CloudCurlPool::getInstance();
  std::vector<CurlObject*> out;
  out.reserve(CONNECTIONS);
  for (int i = 0; i < CONNECTIONS; ++i) out.push_back(pool.getCurl("alice", "login"));
  std::sort(out.begin(), out.end());
  pool.releaseCurl(out.back());
  out.pop_back();
  measureAll("19 of 20 out", batches);
  for (CurlObject* one : out) pool.releaseCurl(one);
  measureAll("20 idle", batches);
  return 0;
}
