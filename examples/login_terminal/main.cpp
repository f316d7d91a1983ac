// A user's login at the platform, asked and answered at the terminal. What an agent does is login.cpp; here stands what
// a program has to set up around it, and terminal.cpp is the person at the keyboard.
#include <getopt.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <csignal>
#include <exception>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <string>

#include "basalt/ad_agent.h"
#include "basalt/kerberos_abandoned.h"
#include "basalt/run_queue.h"
#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/include/opx.h"
#include "cloud/include/process_start.h"
#include "login.h"
#include "terminal.h"

namespace {

constexpr char USAGE[] = R"(usage: login_terminal --user NAME [OPTION...]
Signs a user in at the platform, asking at the terminal. Run it as root: morvand.conf(5) says by which version and road.

  --user NAME             who signs in
  --platform URL          with a slash at its end; without it the platform of the connectors
  --for login|elevation   what proof is wanted for, by the newest version: a login, or a privileged command
  --payload NAME=VALUE    what the newest version tells the platform about it; any number
  --uuid ID               what else it tells about the user
  --no-directory          look for no connectors: for versions 0 and 1.0 with a proxy or a direct connection, and with
                          ferrod.cloud.iwa.url set to anything
  --domain NAME           the domain's DNS name; without it that of this host's settings or keytab
  --keytab FILE           the machine's keys, /etc/krb5.keytab
  --poll-interval SECONDS pace of asking for an answer that comes by telephone, mail or the like, 2
  --poll-limit SECONDS    how long to ask for it, 120
  --help

Exit status: 0 the platform agrees, 1 it does not or nobody answered, 2 wrong usage, 3 an error. A signal that ends the
program shows as such. The log says more: morvand.conf(5).
)";
enum Status : int { SUCCESS = 0, REFUSED = 1, WRONG_USAGE = 2, FAILED = 3, SIGNALLED = 128 };

struct Options {
  LoginOptions login;
  ADAgent::Options agent;
  bool hasDirectory = true;
  bool wantsHelp = false;
};

int say(std::ostream& stream, const std::string& text, int status) {
  stream << text << std::flush;
  return status;
}

struct Outcome {
  int reached;  // a CloudAuthStatus
  int status;
  const char* text;
};
constexpr Outcome OUTCOMES[] = {
    {AUTH_DONE, SUCCESS, "the platform agrees"},
    {AUTH_FAILED, REFUSED, "the platform refuses"},
    {AUTH_NEXT_CHALLENGE, REFUSED, "the platform wants something that cannot be given at a terminal"},
    {AUTH_PENDING, REFUSED, "no answer came in time"},
    {AUTH_REQUEST_FAILED, FAILED, "the platform gives no challenges; the log says why"},
    {AUTH_NOT_CONFIGURED, FAILED, "the platform has no authentication profile for this use"},
    {AUTH_NO_MACHINE_ACCESS, FAILED, "this machine may not act for users; the log says why"},
};

int tell(int reached) {
  for (const Outcome& outcome : OUTCOMES) {
    if (outcome.reached != reached) continue;
    std::ostream& stream = outcome.status == SUCCESS ? std::cout : std::cerr;
    return say(stream, std::string("login_terminal: ") + outcome.text + "\n", outcome.status);
  }
  return say(std::cerr, "login_terminal: unknown status " + std::to_string(reached) + "\n", FAILED);
}

int signIn(const Options& options) {
  Terminal terminal;
  UpdateCloudHttpProxy();  // whenever the configuration was read
  if (!options.hasDirectory) return tell(login(options.login, terminal));
  const RunningAgent agent(options.agent);
  const lumo::RunningQueues queues({lumo::MAIN_RUN_QUEUE});
  UpdateCloudConnectors();  // once; from here on the main queue sees to it
  return tell(login(options.login, terminal));
}

constexpr option LONG_OPTIONS[] = {{"user", required_argument, nullptr, 'u'},
                                   {"platform", required_argument, nullptr, 'p'},
                                   {"for", required_argument, nullptr, 'f'},
                                   {"payload", required_argument, nullptr, 'l'},
                                   {"uuid", required_argument, nullptr, 'i'},
                                   {"no-directory", no_argument, nullptr, 'n'},
                                   {"domain", required_argument, nullptr, 'd'},
                                   {"keytab", required_argument, nullptr, 'k'},
                                   {"poll-interval", required_argument, nullptr, 'v'},
                                   {"poll-limit", required_argument, nullptr, 't'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};

bool readProfile(const std::string& text, int& profile) {
  profile = text == "elevation" ? PROFILE_ELEVATION : PROFILE_LOGIN;
  return text == "elevation" || text == "login";
}

bool readPair(const std::string& text, CloudAuth::Payload& payload) {
  const std::size_t end = text.find('=');
  if (end == std::string::npos || end == 0) return false;
  payload.emplace_back(text.substr(0, end), text.substr(end + 1));
  return true;
}

bool readSeconds(const std::string& text, std::chrono::milliseconds& time) {
  constexpr double LONGEST = 86'400;
  double seconds = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (read.ec != std::errc() || read.ptr != text.data() + text.size()) return false;
  time = std::chrono::milliseconds(seconds > 0 && seconds <= LONGEST ? static_cast<int>(seconds * 1'000) : 0);
  return time.count() > 0;
}

// False for wrong usage.
bool readOption(int letter, const char* argument, Options& options) {
  LoginOptions& login = options.login;
  switch (letter) {
    case 'u':
      login.user = argument;
      return true;
    case 'p':
      login.platform = argument;
      return true;
    case 'f':
      return readProfile(argument, login.profile);
    case 'l':
      return readPair(argument, login.payload);
    case 'i':
      login.uuid = argument;
      return true;
    case 'n':
      options.hasDirectory = false;
      return true;
    case 'd':
      options.agent.domain = argument;
      return true;
    case 'k':
      options.agent.keytab = argument;
      return true;
    case 'v':
      return readSeconds(argument, login.pollInterval);
    case 't':
      return readSeconds(argument, login.pollLimit);
    case 'h':
      options.wantsHelp = true;
      return true;
    default:
      return false;
  }
}

int refuse(const char* argument) {
  if (argument != nullptr) std::cerr << "login_terminal: this is not understood: " << argument << "\n";
  return say(std::cerr, USAGE, WRONG_USAGE);
}

int run(int argc, char** argv) {
  Options options;
  for (int letter; (letter = getopt_long(argc, argv, "", LONG_OPTIONS, nullptr)) != -1;) {
    if (!readOption(letter, optarg, options)) return refuse(letter == '?' ? nullptr : optarg);
    if (options.wantsHelp) return say(std::cout, USAGE, SUCCESS);
  }
  const bool isComplete = optind == argc && !options.login.user.empty();
  return isComplete ? signIn(options) : refuse(nullptr);
}

int guarded(int argc, char** argv) {
  try {
    lumo::secureProcess();
    return run(argc, argv);
  } catch (const Interrupted& interrupted) {
    return say(std::cerr, "\nlogin_terminal: interrupted\n", SIGNALLED + interrupted.signal);
  } catch (const EndOfInput& end) {
    return say(std::cerr, std::string("\nlogin_terminal: ") + end.what() + "\n", REFUSED);
  } catch (const std::out_of_range&) {  // in the C++ library's words, which say nothing of the platform
    return say(std::cerr, "login_terminal: the platform's policy lacks a text that version 0 needs\n", FAILED);
  } catch (const std::exception& failure) {
    return say(std::cerr, std::string("login_terminal: ") + failure.what() + "\n", FAILED);
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);  // a peer that goes away is a failed write, not the end
  const int status = guarded(argc, argv);
  if (status > SIGNALLED) std::raise(status - SIGNALLED);  // all is given back: the shell may know
  // A thread that still waits for a silent KDC must not meet exit handlers; all output is flushed.
  if (!lumo::joinAbandonedKdcRequests(std::chrono::seconds(0))) _exit(status);
  return status;
}
