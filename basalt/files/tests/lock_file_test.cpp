#include "basalt/files/lock_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "testsupport/temp_folder.h"

using testsupport::TempFolder;

namespace {

TEST(LockFile, FreeLockIsTakenAndMadeWhenMissing) {
  const TempFolder folder;
  const std::string path = folder.file("lock");
  int state = 77;
  const int handle = MvdLock(path.c_str(), &state);
  EXPECT_GE(handle, 0);
  EXPECT_EQ(state, 0);
  EXPECT_EQ(testsupport::modeOf(path), 0600U);
  EXPECT_NE(fcntl(handle, F_GETFD) & FD_CLOEXEC, 0);
  MvdUnlock(handle);
  EXPECT_EQ(fcntl(handle, F_GETFD), -1);
}

TEST(LockFile, HeldLockIsSomebodyElses) {
  const TempFolder folder;
  const std::string path = folder.file("lock");
  int state = 77;
  const int holder = MvdLock(path.c_str(), &state);
  const int second = MvdLock(path.c_str(), &state);
  EXPECT_GE(second, 0);
  EXPECT_NE(state, 0);
  EXPECT_NE(state, -1);
  MvdUnlock(second);
  const int third = MvdLock(path.c_str(), &state);
  EXPECT_EQ(state, 1) << "letting go of a handle that holds nothing gives nothing back";
  MvdUnlock(third);
  MvdUnlock(holder);
  MvdUnlock(MvdLock(path.c_str(), &state));
  EXPECT_EQ(state, 0);
}

TEST(LockFile, LockOfAProcessThatDiedIsFree) {
  const TempFolder folder;
  const std::string path = folder.file("lock");
  const pid_t pid = fork();
  if (pid == 0) {
    int state = -1;
    _exit(MvdLock(path.c_str(), &state) >= 0 && state == 0 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_EQ(status, 0);
  int state = -1;
  MvdUnlock(MvdLock(path.c_str(), &state));
  EXPECT_EQ(state, 0);
}

class LockFileBad : public testing::Test {
 protected:
  void expectFailure() {
    int state = 77;
    EXPECT_EQ(MvdLock(path.c_str(), &state), -1);
    EXPECT_EQ(state, -1);
  }
  TempFolder folder;
  std::string path = folder.file("lock");
};

TEST_F(LockFileBad, NoFolder) {
  path = folder.file("none/lock");
  expectFailure();
}
TEST_F(LockFileBad, FolderInItsPlace) {
  std::filesystem::create_directory(path);
  expectFailure();
}
TEST_F(LockFileBad, PipeInItsPlace) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  expectFailure();
}
TEST_F(LockFileBad, LinkInItsPlace) {
  std::filesystem::create_symlink(folder.file("target"), path);
  expectFailure();
  EXPECT_FALSE(testsupport::exists(folder.file("target")));
}

TEST(LockFile, UnlockOfNothing) { MvdUnlock(-1); }

}  // namespace
