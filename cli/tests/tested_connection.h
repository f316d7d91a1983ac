// What --test meets and says: a proxy on loopback, and the outcomes.
#pragma once

#include <string>

#include "base/include/printable.h"
#include "cli/tests/tool_host.h"
#include "testsupport/http_server.h"

namespace tooltest {

// A proxy that opens every tunnel and is itself the web server at its end.
inline testsupport::HttpServer::Handler open(const testsupport::HttpReply& answer, bool tls = false) {
  return [answer, tls](const testsupport::HttpRequest& request) {
    return request.method() == "CONNECT" ? testsupport::tunnelReply(tls) : answer;
  };
}
inline testsupport::HttpServer::Handler always(const testsupport::HttpReply& answer) {
  return [answer](const testsupport::HttpRequest&) { return answer; };
}

inline const testsupport::HttpReply OK = testsupport::httpReply("200 OK", {}, "hello");

class Connection : public JoinedHost {
 protected:
  static std::string announced(const std::string& url, const std::string& server) {
    return "Connection Test to OPX " + lumo::printable(url) + " via proxy '" + lumo::printable(server) +
           "' without authentication.\n";
  }
  static Outcome passed(const std::string& url, const std::string& server, const std::string& more = {}) {
    return {0, "Connection to OPX is successful.\n\n", announced(url, server) + more};
  }
  static Outcome failed(const std::string& url, const std::string& server, const std::string& more = {}) {
    return {162, "", announced(url, server) + more + "ERROR: Connection test failed.\n\n"};
  }
};

}  // namespace tooltest
