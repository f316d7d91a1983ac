// Finds the connectors of this host's forest and prints what is known of them: the first things that an agent does.
#include <getopt.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <exception>
#include <iostream>
#include <string>

#include "basalt/ad_agent.h"
#include "basalt/kerberos_abandoned.h"
#include "basalt/run_queue.h"
#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/include/opx.h"
#include "cloud/include/process_start.h"

namespace {

constexpr char USAGE[] = R"(usage: find_connectors [OPTION...]
Finds the connectors of the forest and prints them. Run it as root on a joined host.

  --domain NAME   the domain's DNS name; without it that of this host's settings or keytab
  --keytab FILE   the machine's keys, /etc/krb5.keytab
  --help

Exit status: 0 a connector can be used, 1 none can or an error, 2 wrong usage. The log says more: morvand.conf(5).
)";
enum Status : int { SUCCESS = 0, FAILED = 1, WRONG_USAGE = 2 };

int say(std::ostream& stream, const std::string& text, Status status) {
  stream << text << std::flush;
  return status;
}

int findConnectors(const ADAgent::Options& options) {
  UpdateCloudHttpProxy();  // whenever the configuration was read
  const RunningAgent agent(options);
  const lumo::RunningQueues queues({lumo::MAIN_RUN_QUEUE});
  UpdateCloudConnectors();  // once; from here on the main queue sees to it
  std::cout << dumpCloudConnectors() << std::flush;
  if (!CloudConnectorLocator::getInstance("")->getCloudConnector().empty()) return SUCCESS;
  return say(std::cerr, "find_connectors: no connector can be used at the moment; the log says why\n", FAILED);
}

int run(int argc, char** argv) {
  constexpr option LONG_OPTIONS[] = {{"domain", required_argument, nullptr, 'd'},
                                     {"keytab", required_argument, nullptr, 'k'},
                                     {"help", no_argument, nullptr, 'h'},
                                     {nullptr, 0, nullptr, 0}};
  ADAgent::Options options;
  for (int letter; (letter = getopt_long(argc, argv, "", LONG_OPTIONS, nullptr)) != -1;) {
    if (letter == 'd') options.domain = optarg;
    if (letter == 'k') options.keytab = optarg;
    if (letter == 'h') return say(std::cout, USAGE, SUCCESS);
    if (letter == '?') return say(std::cerr, USAGE, WRONG_USAGE);
  }
  return optind == argc ? findConnectors(options) : say(std::cerr, USAGE, WRONG_USAGE);
}

int guarded(int argc, char** argv) {
  try {
    lumo::secureProcess();
    return run(argc, argv);
  } catch (const std::exception& failure) {
    return say(std::cerr, std::string("find_connectors: ") + failure.what() + "\n", FAILED);
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);  // a peer that goes away is a failed write, not the end
  const int status = guarded(argc, argv);
  // A thread that still waits for a silent KDC must not meet exit handlers; all output is flushed.
  if (!lumo::joinAbandonedKdcRequests(std::chrono::seconds(0))) _exit(status);
  return status;
}
