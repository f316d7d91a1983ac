#include "testsupport/process.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

namespace testsupport {
namespace {

using Clock = std::chrono::steady_clock;

struct Pipe {
  int read = -1;
  int write = -1;
  Pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
    read = ends[0];
    write = ends[1];
  }
};

void closeEnd(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

void becomeUser(const ProcessOptions& options) {
  // What the coverage counters have to say must not disturb the streams under test; another user's go elsewhere.
  setenv("GCOV_ERROR_FILE", "/dev/null", 0);
  if (options.uid != 0) setenv("GCOV_PREFIX", "/var/tmp", 0);
  for (const auto& [name, value] : options.environment) setenv(name.c_str(), value.c_str(), 1);
  if (options.uid != 0 && (setgid(options.uid) != 0 || setuid(options.uid) != 0)) _exit(126);
}

int becomeProgram(const std::vector<std::string>& argv) {
  std::vector<char*> pointers;
  for (const auto& word : argv) pointers.push_back(const_cast<char*>(word.c_str()));
  pointers.push_back(nullptr);
  execvp(pointers[0], pointers.data());
  _exit(127);
}

[[noreturn]] void runBody(const std::function<int()>& body, const ProcessOptions& options) {
  becomeUser(options);
  std::exit(body());
}

// Reads what is there; false at the end of the stream.
bool readSome(int fd, std::string& into) {
  char buffer[65536];
  const ssize_t n = read(fd, buffer, sizeof buffer);
  if (n > 0) into.append(buffer, static_cast<size_t>(n));
  return n > 0 || (n < 0 && (errno == EINTR || errno == EAGAIN));
}

int remainingMs(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left < 0 ? 0 : static_cast<int>(left);
}

int waitStatus(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

ProcessResult runOnTerminal(const std::function<int()>& body, const ProcessOptions& options) {
  int master = -1;
  const pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  if (pid < 0) throw std::runtime_error("forkpty failed");
  if (pid == 0) runBody(body, options);
  ProcessResult result;
  const auto deadline = Clock::now() + options.limit;
  bool typed = options.input.empty();
  for (;;) {
    if (!typed && result.out.find(options.typeAfter) != std::string::npos) {
      typed = write(master, options.input.data(), options.input.size()) > 0;
    }
    pollfd waiting{master, POLLIN, 0};
    if (poll(&waiting, 1, remainingMs(deadline)) == 0) {
      result.timedOut = true;
      kill(pid, SIGKILL);
      break;
    }
    if (!readSome(master, result.out)) break;
  }
  result.status = waitStatus(pid);
  close(master);
  return result;
}

// Feeds the input and gathers both streams until they end or the time is up.
bool pump(Pipe& in, Pipe& out, Pipe& err, const ProcessOptions& options, ProcessResult& result) {
  const auto deadline = Clock::now() + options.limit;
  size_t sent = 0;
  while (out.read >= 0 || err.read >= 0) {
    if (in.write >= 0 && sent == options.input.size()) closeEnd(in.write);
    pollfd waiting[3] = {{out.read, POLLIN, 0}, {err.read, POLLIN, 0}, {in.write, POLLOUT, 0}};
    if (poll(waiting, 3, remainingMs(deadline)) == 0) return false;
    if (waiting[0].revents != 0 && !readSome(out.read, result.out)) closeEnd(out.read);
    if (waiting[1].revents != 0 && !readSome(err.read, result.err)) closeEnd(err.read);
    if (waiting[2].revents != 0) {
      const ssize_t n = write(in.write, options.input.data() + sent, options.input.size() - sent);
      if (n > 0) sent += static_cast<size_t>(n);
      if (n < 0) closeEnd(in.write);
    }
  }
  return true;
}

}  // namespace

ProcessResult run(const std::vector<std::string>& argv, const ProcessOptions& options) {
  return runInChild([&] { return becomeProgram(argv); }, options);
}

ProcessResult runInChild(const std::function<int()>& body, const ProcessOptions& options) {
  signal(SIGPIPE, SIG_IGN);
  if (options.terminal) return runOnTerminal(body, options);
  Pipe in;
  Pipe out;
  Pipe err;
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    signal(SIGPIPE, SIG_DFL);
    setsid();  // no controlling terminal: a prompt must not find the developer's
    dup2(in.read, 0);
    dup2(out.write, 1);
    dup2(err.write, 2);
    for (Pipe* pipe : {&in, &out, &err}) {
      closeEnd(pipe->read);
      closeEnd(pipe->write);
    }
    runBody(body, options);
  }
  closeEnd(in.read);
  closeEnd(out.write);
  closeEnd(err.write);
  ProcessResult result;
  if (!pump(in, out, err, options, result)) {
    result.timedOut = true;
    kill(pid, SIGKILL);
  }
  result.status = waitStatus(pid);
  closeEnd(in.write);
  closeEnd(out.read);
  closeEnd(err.read);
  return result;
}

std::string toolPath() {
  const char* other = std::getenv("FERRO_TEST_TOOL");
  return other != nullptr ? other : FERRO_TOOL;
}

ProcessResult runTool(const std::vector<std::string>& arguments, const ProcessOptions& options) {
  std::vector<std::string> argv{toolPath()};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return run(argv, options);
}

}  // namespace testsupport
