// A small agent for the lab: it shows how an agent uses the library, and tests it in one process. README.md tells how
// to run it.
#include <dirent.h>
#include <getopt.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>
#include <thread>

#include "basalt/ad_agent.h"
#include "basalt/files/lock_file.h"
#include "basalt/kerberos/kerberos_names.h"
#include "basalt/kerberos_abandoned.h"
#include "basalt/run_queue.h"
#include "basalt/settings/settings_store.h"
#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/include/opx.h"
#include "cloud/include/opx_processor.h"
#include "cloud/include/process_start.h"
#include "lab/agent/agent_rpc.h"

namespace {

using namespace std::chrono_literals;

constexpr char USAGE[] = R"(usage: lab_agent [OPTION...]
The part of an agent that needs the library: serves the local RPC until SIGTERM or SIGINT; SIGHUP reads the settings
anew. Run it as root on a joined host.

  --domain NAME   the domain's DNS name; without it that of this host's settings or keytab
  --keytab FILE   the machine's keys, /etc/krb5.keytab
  --help

Exit status: 0 ended, 1 an error or something left behind, 2 wrong usage. The log says more: morvand.conf(5).
)";
enum Status : int { SUCCESS = 0, FAILED = 1, WRONG_USAGE = 2 };

boost::shared_ptr<lumo::Logger> logger() { return getLogger("lab.agent", false); }

// The agent's lock with its process in it, from the very beginning to the very end.
class AgentLock {
 public:
  AgentLock() {
    int state = -1;
    // Whoever asks for the agent's status holds it for a moment.
    for (int tries = 0; tries < 50 && state != 0; ++tries) {
      if (tries != 0) std::this_thread::sleep_for(20ms);
      MvdUnlock(m_handle);
      m_handle = MvdLock(lumo::path::AGENT_LOCK, &state);
    }
    if (state != 0) {
      MvdUnlock(m_handle);
      LUMO_THROW(lumo::IOException, -1, "%s: %s", lumo::path::AGENT_LOCK,
                 state < 0 ? "the lock cannot be had" : "another agent runs on this host");
    }
    write(std::to_string(getpid()) + "\n");
  }
  ~AgentLock() {
    write("");
    MvdUnlock(m_handle);
  }
  AgentLock(const AgentLock&) = delete;
  AgentLock& operator=(const AgentLock&) = delete;

 private:
  void write(const std::string& text) const {
    // For people alone: nothing reads it.
    if (ftruncate(m_handle, 0) != 0 || ::pwrite(m_handle, text.data(), text.size(), 0) < 0) {
      LUMO_LOG(logger(), lumo::level::Warn, "Cannot write %s: %s", lumo::path::AGENT_LOCK, std::strerror(errno));
    }
  }

  int m_handle = -1;
};

struct Processor {
  Processor() { lumo::OPXProcessor::createProcessor(); }
  ~Processor() { lumo::OPXProcessor::destroyProcessor(); }
  Processor(const Processor&) = delete;
  Processor& operator=(const Processor&) = delete;
};

// What is idle in the pool at the end: all of it, for the logins have given their connections back.
struct Pool {
  Pool() = default;
  ~Pool() { CloudCurlPool::getInstance().reapCurls(); }
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;
};

// This host's own object is found by the identifier that stands in the settings: an agent keeps it there.
void storeHostSid(const std::string& keytab) try {
  const std::string principal = machinePrincipal(keytab.empty() ? lumo::path::MACHINE_KEYTAB : keytab).value_or("");
  const std::string filter = "(sAMAccountName=" + escapeFilterValue(principal.substr(0, principal.find('@'))) + ")";
  constexpr const char* SID[] = {AD_OBJECT_SID, nullptr};
  const auto found = ADAgent::GetADAgent(false, true)->searchGCorDC(filter, "", SID, SID, 0);
  if (found->empty()) LUMO_THROW(lumo::BadDataException, -1, "there is no %s", filter.c_str());
  const std::string sid = lumo::SID::ofBytes((*found->front())[AD_OBJECT_SID].toString()).toString();
  if (lumo::loadSetting(SETTING_HOSTSID, false, false) != sid) lumo::saveSetting(SETTING_HOSTSID, sid);
} catch (const LUMOException& failure) {
  LUMO_LOG(logger(), lumo::level::Error, "This host's object is not found: %s", failure.what());
}

void readSettings(bool again) {
  lumo::Logger::ReconfigureLevels(lumo::Props(again, false));
  UpdateCloudHttpProxy();
}

void reload() {
  readSettings(true);
  SetRefresh(0);  // other connectors may be the right ones now
  LUMO_LOG(logger(), lumo::level::Info, "The settings are read anew");
}

void reloadAtSignal() try { reload(); } catch (const LUMOException& failure) {
  LUMO_LOG(logger(), lumo::level::Error, "The settings cannot be read anew: %s", failure.what());
}

void printReports() try {
  std::cout << dumpCloudConnectors() << CloudCurlPool::getInstance().dump() << std::flush;
} catch (const std::exception& failure) {
  std::cerr << "lab_agent: no report: " << failure.what() << "\n";
}

// Signals are taken here alone: they were blocked before there was a thread.
void serve(const sigset_t& signals) {
  std::cout << "ready\n" << std::flush;
  for (int signal = 0; signal != SIGTERM && signal != SIGINT;) {
    if (sigwait(&signals, &signal) == 0 && signal == SIGHUP) reloadAtSignal();
  }
  printReports();
}

lumo::LocalRpcServerOptions serverOptions() {
  lumo::LocalRpcServerOptions options;
  const std::string threads = lumo::Props(false, false).getProperty(lumo::PN::LUMOD_MAX_CLIENT_THREADS);
  if (!threads.empty()) options.maxClients = static_cast<int>(std::strtol(threads.c_str(), nullptr, 10));
  return options;
}

// The order of an agent's life; the end is the beginning backwards.
void live(const ADAgent::Options& options, const sigset_t& signals) {
  const AgentLock lock;
  readSettings(false);
  const RunningAgent agent(options);
  storeHostSid(options.keytab);
  const Pool pool;
  const Processor processor;
  const lumo::RunningQueues queues({lumo::MAIN_RUN_QUEUE, lumo::OPX_RUN_QUEUE});
  UpdateCloudConnectors();
  AgentLogins logins;
  AgentRpc rpc(logins, reload);
  const lumo::LocalRpcServer server(rpc, serverOptions());
  serve(signals);
}

// Entries of a folder of /proc/self: threads ("task"), open descriptors ("fd").
int countOf(const char* what) {
  DIR* const folder = opendir((std::string("/proc/self/") + what).c_str());
  if (folder == nullptr) return 0;
  int count = 0;
  while (readdir(folder) != nullptr) ++count;
  closedir(folder);
  return count;
}

struct Belongings {
  int threads = countOf("task");
  int descriptors = countOf("fd");
};

// The kernel lists a thread for a moment longer than a join waits for it.
int tellLeftBehind(const Belongings& before) {
  Belongings left;
  for (int tries = 0; tries < 200; ++tries) {
    left = Belongings();
    left.threads -= before.threads;
    left.descriptors -= before.descriptors;
    if (left.threads == 0 && left.descriptors == 0) break;
    std::this_thread::sleep_for(10ms);
  }
  std::cout << "left behind: threads " << left.threads << ", descriptors " << left.descriptors << "\n" << std::flush;
  return left.threads == 0 && left.descriptors == 0 ? SUCCESS : FAILED;
}

// The log stays open while a process lives; here its descriptors would count.
void closeLog() {
  lumo::Properties none;
  lumo::Logger::ReconfigureLevels(none);
  closelog();
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
    if (letter == 'h') return std::cout << USAGE << std::flush, SUCCESS;
    if (letter == '?') return std::cerr << USAGE, WRONG_USAGE;
  }
  if (optind != argc) return std::cerr << USAGE, WRONG_USAGE;
  const Belongings before;
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, signal);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  live(options, signals);
  lumo::joinAbandonedKdcRequests(5s);
  closeLog();
  return tellLeftBehind(before);
}

int guarded(int argc, char** argv) {
  try {
    lumo::secureProcess();
    return run(argc, argv);
  } catch (const std::exception& failure) {
    std::cerr << "lab_agent: " << failure.what() << "\n";
    return FAILED;
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);  // a peer that goes away is a failed write, not the end
  const int status = guarded(argc, argv);
  // A thread that still waits for a silent KDC must not meet exit handlers; all output is flushed.
  if (!lumo::joinAbandonedKdcRequests(0s)) _exit(status);
  return status;
}
