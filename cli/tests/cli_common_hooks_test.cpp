#include "cli/cli_common_hooks.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

TEST(HookOutcome, IsTheFirstRowThatMatches) {
  const auto text = [](int status, int error = 0) { return hookOutcome("/p", status, error); };
  EXPECT_EQ(text(-1, ETIMEDOUT), "Post-command-hook /p execute timed out.");
  EXPECT_EQ(text(-2, ETIMEDOUT), "Post-command-hook /p execute timed out.");
  EXPECT_EQ(text(-1, ENOENT), "Cannot execute /p: No such file or directory");
  EXPECT_EQ(text(-1, EACCES), "Cannot execute /p: Permission denied");
  EXPECT_EQ(text(0), "Post-command-hook /p exits with 0.");
  EXPECT_EQ(text(0, ETIMEDOUT), "Post-command-hook /p exits with 0.");
  EXPECT_EQ(text(0x0300), "Post-command-hook /p exits with 3.");
  EXPECT_EQ(text(0xff00), "Post-command-hook /p exits with 255.");
  EXPECT_EQ(text(0x137f), "Post-command-hook /p stopped by signal 19.");
  EXPECT_EQ(text(0xffff), "Post-command-hook /p return status 65535.");
  EXPECT_EQ(text(0x0009), "Post-command-hook /p terminated by signal 9.");
  EXPECT_EQ(text(0x008b), "Post-command-hook /p terminated by signal 11.");
}

}  // namespace
