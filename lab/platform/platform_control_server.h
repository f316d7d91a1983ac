// The control port: the commands of a simulator over plain HTTP, and the code that a connector's page hands out.
#pragma once

#include <string>

#include "lab/platform/platform_simulator.h"

namespace ferrolab {

// POST /control with a command answers as PlatformSimulator::control. GET /iwa/SiteCheck with X-Remote-User: MACHINE is
// for the connector's web server, which authenticates the machine and asks on. Ends before the simulator does.
class PlatformControlServer {
 public:
  // Throws std::runtime_error when it cannot listen.
  explicit PlatformControlServer(PlatformSimulator& platform, const std::string& address = "127.0.0.1",
                                 unsigned short port = 0);

  // "http://127.0.0.1:PORT/control".
  std::string url() const { return "http://" + m_server.address() + "/control"; }
  std::string siteCheckUrl() const { return "http://" + m_server.address() + "/iwa/SiteCheck"; }

 private:
  testsupport::HttpServer m_server;
};

}  // namespace ferrolab
