// Programs of the administrator that run after a command has succeeded, and the relay of a child's output.
#pragma once

#include <boost/shared_ptr.hpp>
#include <istream>
#include <list>
#include <string>

#include "base/include/logger.h"

// What a hook came to, in words: `status` and `error` are the result of spawnfv_time and errno behind it.
std::string hookOutcome(const char* program, int status, int error);

// Runs the hooks when it is destroyed, so that they come last on every way out of a command. One thread.
class PostCommandHook {
 public:
  // The hook is the setting `cli.hook.NAME`, its time limit `cli.hook.timeout` in seconds, 30 when empty.
  PostCommandHook(const std::string& name, boost::shared_ptr<lumo::Logger> hookLogger, bool verboseMode);
  PostCommandHook(const std::string& name, const std::list<std::string>& commands,
                  boost::shared_ptr<lumo::Logger> hookLogger, bool verboseMode);
  // Runs the extra commands and then the configured one, each once, if the command succeeded. Never throws.
  ~PostCommandHook();
  PostCommandHook(const PostCommandHook&) = delete;
  PostCommandHook& operator=(const PostCommandHook&) = delete;

  // Hooks run only after a status of 0.
  void setSuccess(int status) { hookEnabled = status == 0; }
  // Runs one command line now, after its security check. What comes of it is logged and changes nothing else.
  void runCommand(const std::string& commandLine);

  int timeout() const { return timeoutSeconds; }

 private:
  void report(const std::string& text) const;

  bool hookEnabled = false;
  int timeoutSeconds = 30;
  std::string hookCommand;
  boost::shared_ptr<lumo::Logger> logger;
  bool verbose = false;
  std::list<std::string> extraCommands;
};

enum ConsoleMode { ConsoleStderrOnRequest = 0, ConsoleStdout = 1, ConsoleStderr = 2, ConsoleWarning = 3 };

// Relays a stream line by line to the log and, by its mode, to a console stream.
class CommandOutputReader {
 public:
  CommandOutputReader(boost::shared_ptr<lumo::Logger> readerLogger, ConsoleMode consoleMode, std::istream& stream)
      : logger(std::move(readerLogger)), mode(consoleMode), input(stream) {}
  // Reads to the end and clears the stream's state. The argument counts for mode 0 alone.
  void output(bool showMode0);

 private:
  boost::shared_ptr<lumo::Logger> logger;
  ConsoleMode mode;
  std::istream& input;
};
