#include "terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int ENDING_SIGNALS[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

// All that a handler can reach. It may run on any thread of the process.
std::atomic<bool> isWaiting{false};
std::atomic<int> arrived{0};
int wakeUp[2] = {-1, -1};

extern "C" void onEndingSignal(int number) {
  const int error = errno;
  if (isWaiting) {
    arrived = number;
    while (write(wakeUp[1], "", 1) < 0 && errno == EINTR) continue;
  } else {
    std::signal(number, SIG_DFL);
    raise(number);
  }
  errno = error;
}

void handleEndingSignals(void (*handler)(int)) {
  for (const int number : ENDING_SIGNALS) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    if (action.sa_handler == SIG_IGN) continue;  // as nohup has it
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigaction(number, &action, nullptr);
  }
}

void throwIfInterrupted() {
  if (arrived != 0) throw Interrupted(arrived);
}

// Waits until the descriptor (-1: none) can be read or the time (-1: without limit) is over.
void await(int descriptor, int milliseconds) {
  pollfd awaited[] = {{wakeUp[0], POLLIN, 0}, {descriptor, POLLIN, 0}};
  do {
    throwIfInterrupted();
  } while (poll(awaited, 2, milliseconds) < 0 && errno == EINTR);
  throwIfInterrupted();
}

// The terminal's settings and the meaning of signals while somebody is waited for. What was typed before, and what is
// left of it afterwards, is thrown away: it must not be taken for an answer, nor by the shell for a command.
class Waiting {
 public:
  Waiting(int terminal, Terminal::Echo echo) : tty(terminal) {
    tcgetattr(tty, &before);
    termios during = before;
    during.c_iflag |= ICRNL;
    during.c_lflag |= ICANON | ISIG | ECHO | ECHOE | ECHOK;
    if (echo == Terminal::HIDDEN) {
      during.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
      during.c_cc[VSUSP] = _POSIX_VDISABLE;  // a stopped process would leave the shell without echo
    }
    isWaiting = true;
    tcsetattr(tty, TCSAFLUSH, &during);
  }
  ~Waiting() {
    tcsetattr(tty, TCSAFLUSH, &before);
    isWaiting = false;
  }
  Waiting(const Waiting&) = delete;
  Waiting& operator=(const Waiting&) = delete;

 private:
  int tty;
  termios before{};
};

bool isControl(unsigned char c) { return (c < 0x20 && c != '\n' && c != '\t') || c == 0x7f; }

std::string printable(std::string text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
    if (isControl(static_cast<unsigned char>(text[i]))) text[i] = '?';
    if (text[i] == '\xc2' && next >= 0x80 && next < 0xa0) text.replace(i, 2, "?");  // the same, in UTF-8
  }
  return text;
}

}  // namespace

Answer::~Answer() {
  m_text.resize(m_text.capacity());
  explicit_bzero(m_text.data(), m_text.size());
}

void Answer::append(char c) {
  if (m_text.size() == LONGEST) throw std::length_error("the line is too long");
  m_text += c;
}

Terminal::Terminal() : tty(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC)) {
  if (tty < 0 || pipe2(wakeUp, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw std::runtime_error(std::string("There is no terminal to ask at: ") + strerror(errno));
  }
  handleEndingSignals(onEndingSignal);
}

Terminal::~Terminal() {
  handleEndingSignals(SIG_DFL);
  for (const int descriptor : {wakeUp[0], wakeUp[1], tty}) close(descriptor);
}

void Terminal::say(const std::string& text) {
  const std::string shown = printable(text);
  for (std::size_t written = 0; written < shown.size();) {
    const ssize_t count = write(tty, shown.data() + written, shown.size() - written);
    if (count < 0 && errno != EINTR) throw EndOfInput();
    if (count > 0) written += static_cast<std::size_t>(count);
  }
}

Answer Terminal::ask(const std::string& prompt, Echo echo) {
  Answer answer = [&] {
    const Waiting waiting(tty, echo);
    say(prompt);
    return readLine();
  }();
  throwIfInterrupted();
  if (echo == HIDDEN) say("\n");
  return answer;
}

Answer Terminal::readLine() {
  Answer answer;
  for (char c = 0;; answer.append(c)) {
    await(tty, -1);
    if (read(tty, &c, 1) != 1) throw EndOfInput();
    if (c == '\n') return answer;
  }
}

void Terminal::wait(std::chrono::milliseconds time) {
  {
    const Waiting waiting(tty, HIDDEN);
    await(-1, static_cast<int>(time.count()));
  }
  throwIfInterrupted();
}
