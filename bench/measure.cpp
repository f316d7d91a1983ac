// Runs commands several times in turn and prints wall-clock times and peak memory of the whole processes.
//
// usage: measure ROUNDS -- NAME COMMAND ARGS... [-- NAME COMMAND ARGS...]...
// Each round runs every command once, so that a change of the machine's pace meets all of them. A line for each: name,
// median and best time in milliseconds, peak resident memory in KiB, separated by tabs. A command that fails ends the
// whole run with status 1.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern char** environ;

namespace {

struct Command {
  std::string name;
  std::vector<char*> argv;
  std::vector<double> milliseconds;
  long peakKib = 0;
};

std::vector<Command> parse(int argc, char** argv) {
  std::vector<Command> commands;
  for (int i = 2; i < argc; ++i) {
    if (std::strcmp(argv[i], "--") == 0) {
      commands.emplace_back();
    } else if (!commands.empty() && commands.back().name.empty()) {
      commands.back().name = argv[i];
    } else if (!commands.empty()) {
      commands.back().argv.push_back(argv[i]);
    }
  }
  for (auto& command : commands) command.argv.push_back(nullptr);
  return commands;
}

// Output goes nowhere: a terminal's pace is not what is measured.
bool runOnce(Command& command) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  const auto start = std::chrono::steady_clock::now();
  pid_t pid = 0;
  const int failure = posix_spawnp(&pid, command.argv[0], &actions, nullptr, command.argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failure != 0) {
    std::fprintf(stderr, "%s: cannot run %s: %s\n", command.name.c_str(), command.argv[0], std::strerror(failure));
    return false;
  }
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  const std::chrono::duration<double, std::milli> elapsed = std::chrono::steady_clock::now() - start;
  if (status != 0) {
    std::fprintf(stderr, "%s: ended with wait status %d\n", command.name.c_str(), status);
    return false;
  }
  command.milliseconds.push_back(elapsed.count());
  command.peakKib = std::max(command.peakKib, usage.ru_maxrss);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  auto commands = parse(argc, argv);
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 0;
  if (rounds < 1 || commands.empty() || commands.back().argv.size() < 2) {
    std::fprintf(stderr, "usage: measure ROUNDS -- NAME COMMAND ARGS... [-- NAME COMMAND ARGS...]...\n");
    return 2;
  }
  for (int round = 0; round <= rounds; ++round) {
    for (auto& command : commands) {
      if (!runOnce(command)) return 1;
      if (round == 0) command.milliseconds.clear();  // the first round warms the machine's caches
    }
  }
  for (auto& command : commands) {
    auto& times = command.milliseconds;
    std::sort(times.begin(), times.end());
    std::printf("%s\t%.2f\t%.2f\t%ld\n", command.name.c_str(), times[times.size() / 2], times.front(), command.peakKib);
  }
  return 0;
}
