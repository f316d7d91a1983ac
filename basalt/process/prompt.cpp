#include "basalt/process/prompt.h"

#include <bsd/readpassphrase.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdio>

#include "basalt/files/posix_file.h"
#include "base/include/shredder.h"

namespace {

constexpr std::size_t longestPassword = 4096;

char* buffer() {
  static char* memory = static_cast<char*>(mlock_malloc(longestPassword + 2));
  return memory;
}

bool hasTerminal() {
  return static_cast<bool>(lumo::FileDescriptor(open("/dev/tty", O_RDWR | O_CLOEXEC))) || isatty(STDIN_FILENO) == 1;
}

// Waits for the next bytes of standard input; false at its end.
bool inputFollows() {
  pollfd waiting{STDIN_FILENO, POLLIN, 0};
  while (poll(&waiting, 1, -1) < 0) {
    if (errno != EINTR) return false;
  }
  int available = 0;
  return ioctl(STDIN_FILENO, FIONREAD, &available) == 0 && available > 0;
}

}  // namespace

char* mvd_getpass(const char* prompt) {
  if (!hasTerminal()) {
    // readpassphrase does not tell the end of a piped input from an empty line.
    std::fputs(prompt, stderr);
    if (!inputFollows()) return nullptr;
    prompt = "";
  }
  char* text = readpassphrase(prompt, buffer(), longestPassword + 2, RPP_ECHO_OFF);
  if (text == nullptr || strlen(text) > longestPassword) {
    mvd_wipepass();
    return nullptr;
  }
  return text;
}

void mvd_wipepass() { explicit_bzero(buffer(), longestPassword + 2); }
