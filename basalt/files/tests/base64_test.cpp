#include "basalt/files/base64.h"

#include <gtest/gtest.h>

TEST(Base64, CodesTheVectorsOfTheRfcBothWays) {
  const std::pair<const char*, const char*> rows[] = {{"", ""},
                                                      {"f", "Zg=="},
                                                      {"fo", "Zm8="},
                                                      {"foo", "Zm9v"},
                                                      {"foob", "Zm9vYg=="},
                                                      {"fooba", "Zm9vYmE="},
                                                      {"foobar", "Zm9vYmFy"}};
  for (const auto& [bytes, text] : rows) {
    EXPECT_EQ(toBase64(bytes, std::string(bytes).size()), text);
    EXPECT_EQ(fromBase64(text), bytes);
  }
}

TEST(Base64, CodesEveryByte) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  for (std::size_t length = 0; length <= bytes.size(); ++length) {
    const std::string part = bytes.substr(0, length);
    EXPECT_EQ(fromBase64(toBase64(part.data(), length)), part);
  }
  EXPECT_EQ(toBase64("\xfb\xff\xbf", 3), "+/+/");
}

TEST(Base64, RefusesEveryOtherText) {
  for (const char* bad :
       {"Z", "Zg", "Zg=", "Zg===", "====", "=Zg=", "Zm9v=", "Zm 9", "Zm9v\n", "Zm-_", "Zh==", "Zm9="}) {
    EXPECT_EQ(fromBase64(bad), std::nullopt) << bad;
  }
  EXPECT_EQ(fromBase64(std::string("Zm9\0", 4)), std::nullopt);
}
