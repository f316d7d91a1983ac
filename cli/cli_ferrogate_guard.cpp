// The first and the last steps of a run: what the process keeps of its caller, the exception guard, the way out.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>

#include "basalt/kerberos_abandoned.h"
#include "base/include/printable.h"
#include "cli/cli_common.h"
#include "cli/cli_ferrogate.h"
#include "cli/cli_ferrogate_arguments.h"
#include "cli/cli_ferrogate_audit.h"
#include "cloud/include/process_start.h"

namespace {

// The missing ones of the three standard streams lead nowhere: otherwise a file of ours would get such a number, and
// messages would be written into it.
void fillStandardStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) == -1 && errno == EBADF && open("/dev/null", O_RDWR) == -1) _exit(result::MiscError);
  }
}

int failed(const std::string& text) {
  FERRO_NOTE(true, text);
  return result::MiscError;
}

}  // namespace

int guarded(const std::function<int()>& body) {
  try {
    return body();
  } catch (const std::exception& failure) {
    return failed("Error: " + lumo::printable(failure.what()));
  } catch (...) {
    return failed("Error: Unknown exception");
  }
}

int guardedMain(int argc, char** argv) {
  fillStandardStreams();
  // A reader of ours or a peer that goes away is a failed write, not the end: libcurl leaves the signal to its caller.
  std::signal(SIGPIPE, SIG_IGN);
  // So is a file that the limit of the caller's shell lets grow no further.
  std::signal(SIGXFSZ, SIG_IGN);
  const int status = guarded([argc, argv] {
    lumo::secureProcess();
    PrivateArguments arguments(argc, argv);
    audit::begin(firstCommand(argc, arguments.get()));
    return main2(argc, arguments.get());
  });
  audit::end(status);
  return status;
}

int leaveWith(int status) {
  if (lumo::joinAbandonedKdcRequests(std::chrono::milliseconds(0))) return status;
  std::fflush(nullptr);
  _exit(status);
}
