#include <gmock/gmock.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <iostream>

#include "basalt/kerberos/kerberos_request.h"
#include "base/include/kerb_wrap.h"
#include "cli/cli_ferrogate.h"

namespace {

[[noreturn]] void exitWithHandler(int status) {
  std::atexit([] { std::fputs("exit handlers ran\n", stderr); });
  std::exit(leaveWith(status));
}

TEST(LeaveWith, ReturnsTheStatusWhereNoRequestIsLeft) {
  EXPECT_EQ(leaveWith(159), 159);
  EXPECT_EXIT(exitWithHandler(3), testing::ExitedWithCode(3), "^exit handlers ran\n$");
}

// What standard output holds reaches the reader all the same.
TEST(LeaveWith, RunsNoExitHandlerUnderARequestThatStillRuns) {
  const auto leave = [] {
    std::promise<void> never;
    const KerberosContext context;
    krb5_creds creds{};
    const auto silent = [gate = never.get_future().share()](krb5_context, krb5_creds*) {
      gate.wait();
      return krb5_error_code{0};
    };
    lumo::runKdcRequest(context.get(), silent, std::chrono::milliseconds(1), &creds, nullptr);
    // The death test reads standard error: standard output leads there, buffered as a file is.
    dup2(STDERR_FILENO, STDOUT_FILENO);
    static char buffer[BUFSIZ];
    std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
    std::fputs("from stdio, ", stdout);
    std::cout << "from a stream";
    exitWithHandler(159);
  };
  EXPECT_EXIT(leave(), testing::ExitedWithCode(159), "^from stdio, from a stream$");
}

}  // namespace
