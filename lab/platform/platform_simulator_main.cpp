// The platform simulator as a program, for the lab.
#include <getopt.h>
#include <signal.h>

#include <cstdio>
#include <exception>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

#include "lab/platform/platform_control_server.h"
#include "lab/platform/platform_simulator.h"

namespace {

const char USAGE[] =
    "usage: platform_simulator [OPTION...]\n"
    "  --address=ADDRESS        where to listen (127.0.0.1)\n"
    "  --port=PORT              0: a free one (0)\n"
    "  --certificate=FILE       PEM; without it there is no TLS\n"
    "  --key=FILE               its key\n"
    "  --name=HOST              the name by which clients call it (localhost)\n"
    "  --pod-host=HOST[:PORT]   the name of the pod, led to the same listener; without it a listener of its own\n"
    "  --control-address=ADDRESS, --control-port=PORT   control commands over HTTP (127.0.0.1, a free port)\n"
    "  --script=FILE            the tenant, in JSON; without it the default one\n"
    "  --no-record              keep no record of requests and events\n"
    "It says its URLs on standard output and runs until SIGTERM or SIGINT.\n";

struct Options {
  ferrolab::PlatformOptions platform;
  testsupport::Certificate certificate;
  std::string controlAddress = "127.0.0.1";
  unsigned short controlPort = 0;
};

unsigned short portOf(const std::string& text) {
  const bool isNumber = !text.empty() && text.size() < 6 && text.find_first_not_of("0123456789") == std::string::npos;
  if (!isNumber || std::stoul(text) > 65535) throw std::invalid_argument("'" + text + "' is no port");
  return static_cast<unsigned short>(std::stoul(text));
}

std::string contentOf(const std::string& path) {
  const std::ifstream file(path);
  std::ostringstream content;
  content << file.rdbuf();
  if (!file || !content) throw std::runtime_error("cannot read " + path);
  return content.str();
}

Options optionsOf(int argc, char** argv) {
  const option names[] = {{"address", required_argument, nullptr, 'a'},
                          {"port", required_argument, nullptr, 'p'},
                          {"certificate", required_argument, nullptr, 'c'},
                          {"key", required_argument, nullptr, 'k'},
                          {"name", required_argument, nullptr, 'n'},
                          {"pod-host", required_argument, nullptr, 'o'},
                          {"control-address", required_argument, nullptr, 'A'},
                          {"control-port", required_argument, nullptr, 'P'},
                          {"script", required_argument, nullptr, 's'},
                          {"no-record", no_argument, nullptr, 'r'},
                          {nullptr, 0, nullptr, 0}};
  Options options;
  const std::map<int, std::string*> texts{
      {'a', &options.platform.address},    {'c', &options.certificate.certificateFile},
      {'k', &options.certificate.keyFile}, {'n', &options.platform.hostName},
      {'o', &options.platform.podHost},    {'A', &options.controlAddress}};
  for (int letter = 0; (letter = getopt_long(argc, argv, "", names, nullptr)) != -1;) {
    if (const auto text = texts.find(letter); text != texts.end()) {
      *text->second = optarg;
    } else if (letter == 'p' || letter == 'P') {
      (letter == 'p' ? options.platform.port : options.controlPort) = portOf(optarg);
    } else if (letter == 's') {
      options.platform.script = contentOf(optarg);
    } else if (letter == 'r') {
      options.platform.keepsRecord = false;
    } else {
      throw std::invalid_argument("");
    }
  }
  if (optind < argc) throw std::invalid_argument(std::string("what is '") + argv[optind] + "'?");
  if (options.certificate.certificateFile.empty() != options.certificate.keyFile.empty()) {
    throw std::invalid_argument("--certificate and --key go together");
  }
  return options;
}

int run(int argc, char** argv) {
  Options options = optionsOf(argc, argv);
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);  // before there are threads
  if (!options.certificate.certificateFile.empty()) options.platform.certificate = &options.certificate;
  ferrolab::PlatformSimulator platform(options.platform);
  const ferrolab::PlatformControlServer control(platform, options.controlAddress, options.controlPort);
  std::printf("platform %s\npod %s\ncontrol %s\n", platform.url().c_str(), platform.podHost().c_str(),
              control.url().c_str());
  std::fflush(stdout);
  int number = 0;
  sigwait(&ending, &number);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::invalid_argument& failure) {
    std::fprintf(stderr, "platform_simulator: %s\n%s", failure.what(), USAGE);
    return 2;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "platform_simulator: %s\n", failure.what());
    return 1;
  }
}
