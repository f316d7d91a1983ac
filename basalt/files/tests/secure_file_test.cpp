#include "basalt/files/secure_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <thread>
#include <vector>

#include "basalt/files/posix_file.h"
#include "base/include/exceptions.h"
#include "testsupport/temp_folder.h"

using lumo::FileOwnerMode;
using lumo::replaceFile;
using testsupport::namesIn;
using testsupport::readFile;
using testsupport::TempFolder;
using testsupport::writeFile;

namespace {

FileOwnerMode mine(mode_t mode) { return {geteuid(), getegid(), mode}; }

void replace(const std::string& path, const std::string& content, mode_t mode = 0600) {
  replaceFile(path, content.data(), content.size(), mine(mode));
}

class SecureFile : public testing::Test {
 protected:
  TempFolder folder;
  const std::string file = folder.file("target");
};

TEST_F(SecureFile, NewFileWithTheModeWhateverTheMask) {
  const mode_t mask = umask(0777);
  replace(file, "content", 0644);
  umask(mask);
  EXPECT_EQ(readFile(file), "content");
  EXPECT_EQ(testsupport::modeOf(file), 0644U);
  EXPECT_EQ(namesIn(folder.path()), std::set<std::string>{"target"});
}

TEST_F(SecureFile, ReplacesTheFileAndNotItsContent) {
  writeFile(file, "old");
  const lumo::FileDescriptor reader(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  replace(file, std::string("\0new", 4));
  EXPECT_EQ(readFile(file), std::string("\0new", 4));
  EXPECT_EQ(lumo::readAll(reader.get(), file, 100), "old");
}

TEST_F(SecureFile, EmptyContent) {
  writeFile(file, "old");
  replaceFile(file, nullptr, 0, mine(0600));
  EXPECT_EQ(readFile(file), "");
}

TEST_F(SecureFile, LinkIsReplacedAndNotFollowed) {
  writeFile(folder.file("elsewhere"), "untouched");
  std::filesystem::create_symlink(folder.file("elsewhere"), file);
  replace(file, "new");
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(file)));
  EXPECT_EQ(readFile(file), "new");
  EXPECT_EQ(readFile(folder.file("elsewhere")), "untouched");
}

TEST_F(SecureFile, FolderInItsPlaceIsAnErrorThatLeavesNothing) {
  std::filesystem::create_directory(file);
  try {
    replace(file, "new");
    FAIL();
  } catch (const lumo::SystemException& failure) {
    EXPECT_EQ(failure.what(), "Cannot write " + file + ": Is a directory");
    EXPECT_EQ(failure.rc(), EISDIR);
  }
  EXPECT_EQ(namesIn(folder.path()), std::set<std::string>{"target"});
}

TEST_F(SecureFile, MissingFolderIsAnError) {
  try {
    replace(folder.file("none/target"), "new");
    FAIL();
  } catch (const lumo::SystemException& failure) {
    EXPECT_EQ(failure.what(), "Cannot write " + folder.file("none/target") + ": No such file or directory");
    EXPECT_EQ(failure.rc(), ENOENT);
  }
}

TEST_F(SecureFile, LeftOversOfAKilledWriterGo) {
  writeFile(folder.file(".target.tmp-abc"), "half");
  writeFile(folder.file(".target.tmp-def"), "");
  writeFile(folder.file(".targets.tmp-abc"), "somebody else's");
  replace(file, "new");
  EXPECT_EQ(namesIn(folder.path()), (std::set<std::string>{"target", ".targets.tmp-abc"}));
}

TEST_F(SecureFile, TemporaryFileOfALivingWriterStays) {
  writeFile(folder.file(".target.tmp-abc"), "at work");
  const lumo::FileDescriptor writer(open(folder.file(".target.tmp-abc").c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_EQ(flock(writer.get(), LOCK_EX), 0);
  replace(file, "new");
  EXPECT_EQ(namesIn(folder.path()), (std::set<std::string>{"target", ".target.tmp-abc"}));
}

TEST_F(SecureFile, StrangeThingsWithTheNameOfALeftOverAreNotOpened) {
  ASSERT_EQ(mkfifo(folder.file(".target.tmp-pipe").c_str(), 0600), 0);
  std::filesystem::create_symlink("/etc/passwd", folder.file(".target.tmp-link"));
  std::filesystem::create_directory(folder.file(".target.tmp-folder"));
  replace(file, "new");
  EXPECT_EQ(readFile(file), "new");
  EXPECT_TRUE(testsupport::exists("/etc/passwd"));
}

TEST_F(SecureFile, WritersAtOnceNeverMix) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 25; ++i) replace(file, std::string(20000, static_cast<char>('a' + t)));
    });
  }
  for (auto& thread : threads) thread.join();
  const std::string content = readFile(file);
  EXPECT_EQ(content, std::string(20000, content[0]));
  EXPECT_EQ(namesIn(folder.path()), std::set<std::string>{"target"});
}

TEST_F(SecureFile, ReadAllUpToItsLimit) {
  const std::string content(40000, 'x');
  writeFile(file, content);
  const auto openFile = [&] { return lumo::FileDescriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC)); };
  EXPECT_EQ(lumo::readAll(openFile().get(), file, 40000), content);
  try {
    lumo::readAll(openFile().get(), file, 39999);
    FAIL();
  } catch (const lumo::SystemException& failure) {
    EXPECT_EQ(failure.what(), "Cannot read " + file + ": it is larger than 39999 bytes");
  }
}

TEST_F(SecureFile, ReadAllOfWhatCannotBeRead) {
  const lumo::FileDescriptor same(open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  try {
    lumo::readAll(same.get(), "NAME", 10);
    FAIL();
  } catch (const lumo::SystemException& failure) {
    EXPECT_STREQ(failure.what(), "Cannot read NAME: Is a directory");
  }
}

}  // namespace
