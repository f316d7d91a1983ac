#include <gmock/gmock.h>

#include <cstdlib>

int main(int argc, char** argv) {
  // No proxy of the developer's environment may stand between a test and its server.
  for (const char* name : {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY", "all_proxy",
                           "NO_PROXY", "no_proxy", "KRB5CCNAME", "KRB5_CONFIG", "KRB5_KTNAME"}) {
    unsetenv(name);
  }
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
