// Child processes with a time limit.
#pragma once

#include <string>
#include <vector>

namespace lumo {

// A command line split into words: white space separates, '...' and "..." hold words together, a backslash takes the
// next character as it is (not within '...'). A quote that is never closed lasts to the end. No variables, no globbing,
// no shell.
class ArgV {
 public:
  explicit ArgV(const std::string& text);
  ArgV(const ArgV&) = delete;
  ArgV& operator=(const ArgV&) = delete;
  // The program, the first word; empty when there is none.
  const char* cmd() const { return m_words.empty() ? "" : m_words.front().c_str(); }
  // Null-terminated, in the form that exec takes; valid as long as the object.
  char** argv() { return m_pointers.data(); }
  const std::vector<std::string>& words() const { return m_words; }

 private:
  std::vector<std::string> m_words;
  std::vector<char*> m_pointers;
};

}  // namespace lumo

// Starts the program at the path `cmd` and waits for its end. `flags` is 0. The child gets the `fdCount` descriptors of
// `fds` as its descriptors 0, 1, ... and no other; -1 in `fds` means /dev/null, and so does what is missing of 0 to 2.
// `timeout` is in seconds; any negative number waits without limit. On time-out the child gets TERM and, a second
// later, KILL; with `newGroup`, which puts it into a process group of its own, all of that group do. What the child
// leaves running when it ends by itself is left alone. Of the environment the child gets what
// process_environment.h tells, with a search path of its own. `resetSignals` gives it default signal dispositions and
// an empty mask. Returns the wait status, or -1 with errno set, ETIMEDOUT on time-out. A child that stopped is ended at
// once and its stop is the status returned: nobody is there to continue it. No zombie stays. Any thread; SIGCHLD must
// not be ignored.
int spawnfv_time(int flags, int fdCount, const int* fds, const char* cmd, char** argv, int timeout, int newGroup,
                 int resetSignals);
