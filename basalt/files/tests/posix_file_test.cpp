#include "basalt/files/posix_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>

#include "base/include/exceptions.h"
#include "testsupport/temp_folder.h"

using lumo::FileDescriptor;
using lumo::FileLock;
using testsupport::TempFolder;

namespace {

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

TEST(FileDescriptor, ClosesWhatItOwns) {
  int raw = -1;
  {
    const FileDescriptor file(open("/dev/null", O_RDONLY | O_CLOEXEC));
    raw = file.get();
    EXPECT_TRUE(isOpen(raw));
  }
  EXPECT_FALSE(isOpen(raw));
}

TEST(FileDescriptor, MovesAndReleases) {
  FileDescriptor first(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const int raw = first.get();
  FileDescriptor second(std::move(first));
  EXPECT_FALSE(first);
  FileDescriptor third;
  third = std::move(second);
  EXPECT_EQ(third.get(), raw);
  EXPECT_EQ(third.release(), raw);
  EXPECT_FALSE(third);
  EXPECT_TRUE(isOpen(raw));
  close(raw);
}

TEST(PosixFile, PartsOfAPath) {
  EXPECT_EQ(lumo::folderOf("/etc/morvand/x.conf"), "/etc/morvand");
  EXPECT_EQ(lumo::folderOf("/x"), "/");
  EXPECT_EQ(lumo::folderOf("x"), ".");
  EXPECT_EQ(lumo::nameOf("/etc/morvand/x.conf"), "x.conf");
  EXPECT_EQ(lumo::nameOf("x"), "x");
}

TEST(FileLock, KeepsOthersOutUntilItGoes) {
  const TempFolder folder;
  const std::string path = folder.file("lock");
  {
    const FileLock held(path);
    try {
      const FileLock second(path, std::chrono::milliseconds(30));
      FAIL();
    } catch (const lumo::SystemException& failure) {
      EXPECT_EQ(failure.what(), "Cannot lock " + path + ": another process holds it; try again when it is done");
      EXPECT_EQ(failure.rc(), EWOULDBLOCK);
    }
  }
  const FileLock again(path, std::chrono::milliseconds(0));
  EXPECT_EQ(testsupport::modeOf(path), 0600U);
}

TEST(FileLock, WaitsForTheHolder) {
  const TempFolder folder;
  const std::string path = folder.file("lock");
  auto held = std::make_unique<FileLock>(path);
  std::atomic<bool> released{false};
  std::thread waiting([&] {
    const FileLock mine(path);
    EXPECT_TRUE(released);
  });
  released = true;
  held.reset();
  waiting.join();
}

}  // namespace
