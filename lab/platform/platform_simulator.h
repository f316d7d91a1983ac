// The identity platform as its clients meet it: users, policies, sessions, cookies, and faults on demand. README.md
// beside this file has the flows, the script and the control commands.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "testsupport/http_server.h"

namespace ferrolab {

// One request as it came, and what it was answered with.
struct PlatformRequest {
  int connection = 0;    // number of the connection, from 0 in the order of accepting; those of the pod from 1,000,000
  std::string host;      // the header
  std::string method;    // "GET"
  std::string endpoint;  // "security/sso": the path without its slash
  std::string query;     // what stands behind "?", as it came
  std::string body;      // as it came
  std::string cookie;    // value of ".ASPXAUTH"; several are joined by ", "
  int status = 0;        // of the answer; 0 where none was sent
};

struct PlatformOptions {
  // Null: without TLS; cookies are not "secure" then.
  const testsupport::Certificate* certificate = nullptr;
  std::string address = "127.0.0.1";
  unsigned short port = 0;  // 0: a free one
  // The name by which clients call it; the certificate has to name it.
  std::string hostName = "localhost";
  // The pod to which some users are redirected: "host" or "host:port", led to the same listener. Empty: a listener of
  // its own on a free port, with the same host name. A client of the platform takes no pod with a port: it goes to that
  // of https, from where the test leads it here.
  std::string podHost;
  // JSON, comments allowed. Empty: PlatformSimulator::defaultScript().
  std::string script;
  // The clock by which cookies and codes end. Empty: the steady clock.
  std::function<std::chrono::steady_clock::time_point()> now;
  // Whether requests() and events() are filled; the last 10,000 requests are kept.
  bool keepsRecord = true;
};

// Serves from construction to destruction. Any thread, everywhere. Nothing is written to files or logs.
class PlatformSimulator {
 public:
  // Throws std::runtime_error when it cannot listen, std::invalid_argument with what is wrong in the script.
  explicit PlatformSimulator(const PlatformOptions& options);
  ~PlatformSimulator();
  PlatformSimulator(const PlatformSimulator&) = delete;
  PlatformSimulator& operator=(const PlatformSimulator&) = delete;

  // "https://localhost:PORT/", what a client is built with.
  std::string url() const;
  unsigned short port() const;
  // "localhost:PORT" of the pod.
  std::string podHost() const;
  static const std::string& defaultScript();

  // One command of README.md as JSON text, e.g. {"command":"expire","what":"user"}. Returns the answer as JSON text:
  // {"ok":true,...} or {"ok":false,"error":"..."}. Throws nothing but std::bad_alloc.
  std::string control(const std::string& command);

  // The same commands for tests in C++. They throw std::invalid_argument with the answer's error.

  // A fault, e.g. {"endpoint":"sso","status":500} or {"endpoint":"AdvanceAuthentication","cut":"body","count":2}.
  void fault(const std::string& json);
  // Changes or adds one user, e.g. {"name":"alice","approveAfterPolls":2}.
  void user(const std::string& json);
  // Approves (or denies) what the user is asked out of band now, waiting so long for a question to come.
  void approve(const std::string& name, std::chrono::milliseconds wait = {});
  void deny(const std::string& name, std::chrono::milliseconds wait = {});
  // Ends cookies: "machine", "user" or "all".
  void expire(const std::string& what);
  // The one-time code that a connector gets for a machine, e.g. "HOST1$"; what stands behind "@" is dropped.
  std::string mintCode(const std::string& machine);
  // The connector's answer to iwa/SiteCheck for that machine: text around a JSON object.
  std::string siteCheckReply(const std::string& machine);
  // The same as a whole reply, faults of "SiteCheck" included.
  testsupport::HttpReply siteCheckHttp(const std::string& machine);
  // Everything is as at the start, with the script that was set last: users, sessions, cookies, clock, faults, records.
  void reset();

  // Everything that a client should not have sent, one sentence each, in the order of coming. A test ends with
  // EXPECT_THAT(simulator.surprises(), IsEmpty()).
  std::vector<std::string> surprises() const;
  std::vector<PlatformRequest> requests() const;
  // "GET security/sso", ...: the short form of requests().
  std::vector<std::string> calls() const;
  // Bodies of the privilege events that were accepted, in order.
  std::vector<std::string> events() const;
  // How many were accepted, also without a record.
  long eventCount() const;
  // All connections so far, the pod's too.
  int connections() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace ferrolab
