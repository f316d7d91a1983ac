#include "basalt/process/child_process.h"

// This header of glibc 2.36 declares no linkage of its own.
extern "C" {
#include <sys/pidfd.h>
}

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>

#include "basalt/files/posix_file.h"
#include "basalt/process/process_environment.h"

namespace lumo {
namespace {

using Steady = std::chrono::steady_clock;

bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

std::vector<std::string> splitWords(const std::string& text) {
  std::vector<std::string> words;
  bool inWord = false;
  char quote = '\0';
  for (std::size_t i = 0; i < text.size() && text[i] != '\0'; ++i) {
    char c = text[i];
    if (quote == '\0' && isSpace(c)) {
      inWord = false;
      continue;
    }
    if (!inWord) words.emplace_back();
    inWord = true;
    if (c == quote) {
      quote = '\0';
    } else if (quote == '\0' && (c == '\'' || c == '"')) {
      quote = c;
    } else {
      if (c == '\\' && quote != '\'' && i + 1 < text.size()) c = text[++i];
      words.back().push_back(c);
    }
  }
  return words;
}

}  // namespace

ArgV::ArgV(const std::string& text) : m_words(splitWords(text)) {
  for (auto& word : m_words) m_pointers.push_back(word.data());
  m_pointers.push_back(nullptr);
}

namespace {

// How often a child is looked at for having stopped, which its pidfd does not tell.
constexpr std::chrono::milliseconds lookInterval{100};
constexpr std::chrono::seconds graceOfTerm{1};

// Owns posix_spawn_file_actions_t (posix_spawn_file_actions_destroy) and posix_spawnattr_t (posix_spawnattr_destroy).
class SpawnPlan {
 public:
  SpawnPlan() {
    posix_spawn_file_actions_init(&m_actions);
    posix_spawnattr_init(&m_attributes);
  }
  ~SpawnPlan() {
    posix_spawn_file_actions_destroy(&m_actions);
    posix_spawnattr_destroy(&m_attributes);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;

  // 0 or an errno. The descriptors are first copied out of the way of the numbers that the child will see.
  int giveDescriptors(int count, const int* fds) {
    const int total = std::max(count, 3);
    for (int i = 0; i < total; ++i) {
      FileDescriptor null;
      int from = i < count ? fds[i] : -1;
      if (from < 0) {
        null = FileDescriptor(open("/dev/null", O_RDWR | O_CLOEXEC));
        from = null.get();
      }
      m_staged.emplace_back(fcntl(from, F_DUPFD_CLOEXEC, total));
      if (!m_staged.back()) return errno;
      const int result = posix_spawn_file_actions_adddup2(&m_actions, m_staged.back().get(), i);
      if (result != 0) return result;
    }
    return posix_spawn_file_actions_addclosefrom_np(&m_actions, total);
  }

  int setFlags(bool newGroup, bool resetSignals) {
    short flags = 0;
    if (newGroup) flags = static_cast<short>(flags | POSIX_SPAWN_SETPGROUP);
    if (resetSignals) {
      flags = static_cast<short>(flags | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
      sigset_t all;
      sigset_t none;
      sigfillset(&all);
      sigemptyset(&none);
      posix_spawnattr_setsigdefault(&m_attributes, &all);
      posix_spawnattr_setsigmask(&m_attributes, &none);
    }
    return posix_spawnattr_setflags(&m_attributes, flags);
  }

  int start(const char* cmd, char** argv, pid_t& pid) {
    std::vector<std::string> variables = childEnvironment();
    std::vector<char*> pointers;
    pointers.reserve(variables.size() + 1);
    for (std::string& variable : variables) pointers.push_back(variable.data());
    pointers.push_back(nullptr);
    return posix_spawn(&pid, cmd, &m_actions, &m_attributes, argv, pointers.data());
  }

 private:
  posix_spawn_file_actions_t m_actions{};
  posix_spawnattr_t m_attributes{};
  std::vector<FileDescriptor> m_staged;
};

// A running child. Its pid stays its own until reap, so signals never reach a stranger.
class Child {
 public:
  Child(pid_t pid, bool ownGroup) : m_pid(pid), m_ownGroup(ownGroup), m_handle(pidfd_open(pid, 0)) {}

  bool watched() const { return static_cast<bool>(m_handle); }

  void signal(int number) const { kill(m_ownGroup ? -m_pid : m_pid, number); }

  // Has it ended before the deadline, or within the time?
  bool endsWithin(std::chrono::milliseconds time) const {
    const auto deadline = Steady::now() + time;
    for (;;) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Steady::now());
      pollfd waiting{m_handle.get(), POLLIN, 0};
      const int ready = poll(&waiting, 1, static_cast<int>(std::max<long>(left.count(), 0)));
      if (ready > 0) return true;
      if (ready == 0 || errno != EINTR) return false;
    }
  }

  // The stop status of a child that is stopped now.
  std::optional<int> stopStatus() const {
    siginfo_t info{};
    if (waitid(P_PID, static_cast<id_t>(m_pid), &info, WSTOPPED | WNOHANG | WNOWAIT) != 0 || info.si_pid != m_pid) {
      return std::nullopt;
    }
    return W_STOPCODE(info.si_status);
  }

  // The wait status, or -1 with errno.
  int reap() const {
    int status = 0;
    while (waitpid(m_pid, &status, 0) < 0) {
      if (errno != EINTR) return -1;
    }
    return status;
  }

  int endAndReap(int result, int error) const {
    signal(SIGKILL);
    reap();
    errno = error;
    return result;
  }

 private:
  pid_t m_pid;
  bool m_ownGroup;
  FileDescriptor m_handle;
};

int waitFor(const Child& child, int timeout) {
  const auto start = Steady::now();
  const bool limited = timeout >= 0;
  bool wasStopped = false;
  for (;;) {
    std::chrono::milliseconds wait = lookInterval;
    if (limited) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(start + std::chrono::seconds(timeout) - Steady::now());
      wait = std::clamp(left, std::chrono::milliseconds(0), lookInterval);
    }
    if (child.endsWithin(wait)) return child.reap();
    if (limited && Steady::now() - start >= std::chrono::seconds(timeout)) break;
    // Twice in a row: a person who stops and continues the whole job is not in the way.
    const std::optional<int> stopped = child.stopStatus();
    if (stopped && wasStopped) return child.endAndReap(*stopped, 0);
    wasStopped = stopped.has_value();
  }
  child.signal(SIGTERM);
  child.signal(SIGCONT);
  child.endsWithin(graceOfTerm);
  return child.endAndReap(-1, ETIMEDOUT);
}

}  // namespace
}  // namespace lumo

int spawnfv_time(int /*flags*/, int fdCount, const int* fds, const char* cmd, char** argv, int timeout, int newGroup,
                 int resetSignals) {
  pid_t pid = -1;
  {
    lumo::SpawnPlan plan;
    int error = plan.giveDescriptors(fdCount, fds);
    if (error == 0) error = plan.setFlags(newGroup != 0, resetSignals != 0);
    if (error == 0) error = plan.start(cmd, argv, pid);
    if (error != 0) {
      errno = error;
      return -1;
    }
  }
  const lumo::Child child(pid, newGroup != 0);
  if (!child.watched()) return child.endAndReap(-1, errno);
  return lumo::waitFor(child, timeout);
}
