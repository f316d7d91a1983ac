#include "lab/platform/platform_control_server.h"

namespace ferrolab {
namespace {

using testsupport::HttpReply;
using testsupport::HttpRequest;

HttpReply answer(PlatformSimulator& platform, const HttpRequest& request) {
  const std::vector<std::string> json{"Content-Type: application/json"};
  if (request.target() == "/control") {
    if (request.method() != "POST") return testsupport::httpReply("405 Method Not Allowed");
    return testsupport::httpReply("200 OK", json, platform.control(request.body) + "\n");
  }
  if (request.target() == "/iwa/SiteCheck") return platform.siteCheckHttp(request.header("X-Remote-User"));
  return testsupport::httpReply("404 Not Found");
}

}  // namespace

PlatformControlServer::PlatformControlServer(PlatformSimulator& platform, const std::string& address,
                                             unsigned short port)
    : m_server([&platform](const HttpRequest& request) { return answer(platform, request); }, nullptr, address, port) {
  m_server.keepRequests(false);
}

}  // namespace ferrolab
