#include <gtest/gtest.h>

#include "cli/cli_ferrogate.h"

TEST(EncType, IsShownByItsNameOrElseItsNumber) {
  EXPECT_EQ(encTypeText(18), "AES-256 CTS mode with 96-bit SHA-1 HMAC");
  EXPECT_EQ(encTypeText(0), "0x0000");
  EXPECT_EQ(encTypeText(4711), "0x1267");
  EXPECT_EQ(encTypeText(-1), "0xffffffff");
}
