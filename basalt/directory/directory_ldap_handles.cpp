#include "basalt/directory/directory_ldap_handles.h"

#include <cerrno>

namespace lumo {
namespace {

sigset_t brokenPipe() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  return set;
}

bool isPending() {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, SIGPIPE) == 1;
}

}  // namespace

NoBrokenPipe::NoBrokenPipe() : m_wasPending(isPending()) {
  const sigset_t set = brokenPipe();
  pthread_sigmask(SIG_BLOCK, &set, &m_before);
}

NoBrokenPipe::~NoBrokenPipe() {
  const int error = errno;
  if (!m_wasPending && isPending()) {
    const sigset_t set = brokenPipe();
    const timespec none{};
    while (sigtimedwait(&set, nullptr, &none) < 0 && errno == EINTR) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
  errno = error;
}

}  // namespace lumo
