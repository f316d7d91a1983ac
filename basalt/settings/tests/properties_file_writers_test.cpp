// One file, several writers.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <set>
#include <thread>
#include <vector>

#include "basalt/files/posix_file.h"
#include "base/include/exceptions.h"
#include "base/include/properties.h"
#include "testsupport/temp_folder.h"

using lumo::Properties;
using testsupport::namesIn;
using testsupport::readFile;
using testsupport::TempFolder;
using testsupport::writeFile;

namespace {

// Child processes end with _exit and report by their status.
pid_t inChild(const std::function<void()>& work) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  try {
    work();
  } catch (...) {
    _exit(1);
  }
  _exit(0);
}

class PropertiesFileWriters : public testing::Test {
 protected:
  TempFolder folder;
  const std::string file = folder.file("test.conf");
};

TEST_F(PropertiesFileWriters, WritersAtOnceLoseNothing) {
  writeFile(file, "# shared\n");
  constexpr int writers = 4;
  constexpr int saves = 15;
  std::vector<pid_t> children;
  for (int w = 0; w < writers; ++w) {
    children.push_back(inChild([&] {
      Properties settings;
      settings.loadFile(file);
      for (int i = 0; i < saves; ++i) {
        settings.setProperty("key." + std::to_string(w) + "." + std::to_string(i), std::to_string(i));
        settings.saveProperty(file);
      }
    }));
  }
  for (const pid_t child : children) {
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  Properties all;
  all.loadFile(file);
  for (int w = 0; w < writers; ++w) {
    for (int i = 0; i < saves; ++i) {
      EXPECT_EQ(all.getProperty("key." + std::to_string(w) + "." + std::to_string(i), "lost"), std::to_string(i));
    }
  }
  EXPECT_EQ(namesIn(folder.path()), (std::set<std::string>{"test.conf", ".test.conf.lock"}));
}

TEST_F(PropertiesFileWriters, ThreadsSaveTheSameMap) {
  Properties settings;
  settings.loadFile(file);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 5; ++i) {
        settings.setProperty(std::to_string(t) + "." + std::to_string(i), "x");
        settings.saveProperty(file);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  Properties all;
  all.loadFile(file);
  for (int t = 0; t < 4; ++t) EXPECT_EQ(all.below(std::to_string(t) + ".").size(), 5U);
  EXPECT_FALSE(settings.dirty());
}

// Is the file open in this process, apart from the given descriptor?
bool isOpenElsewhere(const std::string& path, int known) {
  for (const std::string& name : namesIn("/proc/self/fd")) {
    std::error_code gone;
    if (name != std::to_string(known) && std::filesystem::read_symlink("/proc/self/fd/" + name, gone) == path)
      return true;
  }
  return false;
}

TEST_F(PropertiesFileWriters, SaverThatWaitedWritesWhatHoldsNow) {
  const std::string lockFile = folder.file(".test.conf.lock");
  const lumo::FileDescriptor lock(open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(flock(lock.get(), LOCK_EX), 0);
  Properties settings;
  settings.loadFile(file);
  settings.setProperty("a", "old");
  std::thread saver([&] { settings.saveProperty(file); });
  while (!isOpenElsewhere(lockFile, lock.get())) std::this_thread::yield();
  settings.setProperty("a", "new");
  ASSERT_EQ(flock(lock.get(), LOCK_UN), 0);
  saver.join();
  Properties saved;
  saved.loadFile(file);
  EXPECT_EQ(saved.getProperty("a"), "new");
  EXPECT_FALSE(settings.dirty());
}

TEST_F(PropertiesFileWriters, KilledWriterLeavesTheOldFileOrTheNew) {
  const std::string filler(60000, 'x');
  const std::string one = "a: one\nfiller: " + filler + "\n";
  const std::string two = "a: two\nfiller: " + filler + "\n";
  writeFile(file, one);
  std::set<std::string> seen;
  for (int round = 0; round < 150; ++round) {
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const pid_t child = inChild([&] {
      Properties settings;
      settings.loadFile(file);
      for (int i = 0;; ++i) {
        settings.setProperty("a", i % 2 == 0 ? "two" : "one");
        settings.saveProperty(file);
        if (i == 0 && write(ready[1], "r", 1) != 1) _exit(1);
      }
    });
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    // Some other point of the work in every round.
    std::this_thread::sleep_for(std::chrono::microseconds(37 * round));
    kill(child, SIGKILL);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    close(ready[0]);
    close(ready[1]);
    const std::string content = readFile(file);
    ASSERT_TRUE(content == one || content == two) << "round " << round << ": " << content.size() << " bytes";
    seen.insert(content);
  }
  EXPECT_EQ(seen.size(), 2U);
  Properties next;
  next.loadFile(file);
  next.setProperty("b", "after");
  next.saveProperty(file);
  EXPECT_EQ(namesIn(folder.path()), (std::set<std::string>{"test.conf", ".test.conf.lock"}));
}

}  // namespace
