// The platform simulator in a process of its own, for benchmarks: with TLS, a connector beside it, and a count of what
// arrived.
#pragma once

#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "lab/platform/platform_simulator.h"
#include "testsupport/temp_folder.h"

inline void require(bool good, const char* what) {
  if (!good) throw std::runtime_error(what);
}

// Client and simulator keep to a processor each: where the system puts the server's thread of a connection would decide
// more than what the client does.
inline void keepTo(long processor) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(static_cast<size_t>(processor), &set);
  sched_setaffinity(0, sizeof set, &set);
}

// Any processor will do again.
inline void keepToNone() {
  cpu_set_t set;
  CPU_ZERO(&set);
  for (long i = 0; i < sysconf(_SC_NPROCESSORS_ONLN); ++i) CPU_SET(static_cast<size_t>(i), &set);
  sched_setaffinity(0, sizeof set, &set);
}

// Ends with this process at the latest. Made before any thread is.
class Platform {
 public:
  Platform() {
    signal(SIGPIPE, SIG_IGN);
    m_certificate = testsupport::makeCertificate(m_folder.path(), "platform", {});
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
    m_child = fork();
    require(m_child >= 0, "fork");
    if (m_child == 0) serve(ends[1]);
    close(ends[1]);
    m_line = ends[0];
    std::istringstream(answer()) >> m_url >> m_connector;
  }
  ~Platform() { end(); }
  Platform(const Platform&) = delete;
  Platform& operator=(const Platform&) = delete;

  const std::string& url() const { return m_url; }
  // Of a connector that takes everybody for the machine, without TLS; ends in "/".
  const std::string& connectorUrl() const { return m_connector; }
  const std::string& bundle() const { return m_certificate.certificateFile; }

  // A new one-time code of the machine.
  std::string code() const { return ask(CODE); }
  // The privilege events that it accepted so far, and the connections that were made to it.
  std::pair<long, int> eventsAndConnections() const {
    std::pair<long, int> counts;
    std::istringstream(ask(COUNTS)) >> counts.first >> counts.second;
    return counts;
  }
  // The platform is down from here on: nobody listens on its port any more.
  void end() {
    if (m_child <= 0) return;
    kill(m_child, SIGTERM);
    waitpid(std::exchange(m_child, -1), nullptr, 0);
    close(m_line);
  }

 private:
  enum Question : char { CODE, COUNTS };

  std::string ask(char question) const {
    require(write(m_line, &question, 1) == 1, "the simulator is gone");
    return answer();
  }
  std::string answer() const {
    char text[512] = {};
    require(read(m_line, text, sizeof text - 1) > 0, "the simulator does not answer");
    return text;
  }
  [[noreturn]] void serve(int line) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    keepTo(sysconf(_SC_NPROCESSORS_ONLN) - 1);
    ferrolab::PlatformOptions options;
    options.certificate = &m_certificate;
    options.keepsRecord = false;
    ferrolab::PlatformSimulator simulator(options);
    const testsupport::HttpServer connector(
        [&simulator](const testsupport::HttpRequest&) { return simulator.siteCheckHttp("HOST1$"); });
    std::string text = simulator.url() + " http://" + connector.address() + "/";
    for (;;) {
      char question = 0;
      if (write(line, text.data(), text.size()) < 0 || read(line, &question, 1) != 1) _exit(1);
      text = question == CODE ? simulator.mintCode("HOST1$")
                              : std::to_string(simulator.eventCount()) + " " + std::to_string(simulator.connections());
    }
  }

  testsupport::TempFolder m_folder;
  testsupport::Certificate m_certificate;
  pid_t m_child = -1;
  int m_line = -1;
  std::string m_url;
  std::string m_connector;
};
