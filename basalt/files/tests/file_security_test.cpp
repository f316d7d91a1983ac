#include "basalt/files/file_security.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "base/include/exceptions.h"
#include "testsupport/temp_folder.h"

using testsupport::TempFolder;

namespace {

TEST(GetFileSize, OfFiles) {
  const TempFolder folder;
  testsupport::writeFile(folder.file("some"), std::string(1234, 'x'));
  testsupport::writeFile(folder.file("none"), "");
  std::filesystem::create_symlink(folder.file("some"), folder.file("link"));
  EXPECT_EQ(GetFileSize(folder.file("some")), 1234);
  EXPECT_EQ(GetFileSize(folder.file("none")), 0);
  EXPECT_EQ(GetFileSize(folder.file("link")), 1234);
}

TEST(GetFileSize, FolderIsNotToldFromAFile) {
  const TempFolder folder;
  EXPECT_GE(GetFileSize(folder.path()), 0);
}

TEST(GetFileSize, PipeDoesNotHoldItUp) {
  const TempFolder folder;
  ASSERT_EQ(mkfifo(folder.file("pipe").c_str(), 0600), 0);
  EXPECT_EQ(GetFileSize(folder.file("pipe")), 0);
}

TEST(GetFileSize, MissingFileIsASystemException) {
  try {
    GetFileSize("/nonexistent/file");
    FAIL();
  } catch (const lumo::SystemException& failure) {
    EXPECT_STREQ(failure.what(), "Cannot read /nonexistent/file: No such file or directory");
    EXPECT_EQ(failure.rc(), ENOENT);
  }
}

TEST(WorldWritableCheck, FileAndFoldersAboveIt) {
  const TempFolder folder;
  const std::string inner = folder.file("inner");
  std::filesystem::create_directory(inner);
  const std::string file = inner + "/file";
  testsupport::writeFile(file, "", 0664);
  EXPECT_FALSE(lumo::WorldWritableCheck(file));
  chmod(file.c_str(), 0666);
  EXPECT_TRUE(lumo::WorldWritableCheck(file));
  chmod(file.c_str(), 0644);
  chmod(inner.c_str(), 0777);
  EXPECT_TRUE(lumo::WorldWritableCheck(file));
  chmod(inner.c_str(), 01777);
  EXPECT_FALSE(lumo::WorldWritableCheck(file));
  EXPECT_FALSE(lumo::WorldWritableCheck(inner));
}

TEST(WorldWritableCheck, LinkCountsForWhatItLeadsTo) {
  const TempFolder folder;
  std::filesystem::create_directory(folder.file("open"));
  testsupport::writeFile(folder.file("open/file"), "");
  chmod(folder.file("open").c_str(), 0777);
  std::filesystem::create_symlink(folder.file("open/file"), folder.file("link"));
  EXPECT_TRUE(lumo::WorldWritableCheck(folder.file("link")));
}

TEST(WorldWritableCheck, WhatCannotBeLookedAtCounts) {
  EXPECT_TRUE(lumo::WorldWritableCheck("/nonexistent/file"));
  EXPECT_TRUE(lumo::WorldWritableCheck(""));
}

}  // namespace
