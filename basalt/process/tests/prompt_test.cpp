#include "basalt/process/prompt.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "testsupport/process.h"

using testsupport::ProcessOptions;
using testsupport::ProcessResult;
using testsupport::runInChild;

namespace {

// In a process of its own: asks so many times, or until there is nothing, and tells what it got.
ProcessResult ask(int times, const ProcessOptions& options) {
  return runInChild(
      [times] {
        for (int i = 0; i < times; ++i) {
          char* text = mvd_getpass("Password:");
          if (text == nullptr) {
            std::puts("got nothing");
            break;
          }
          const std::size_t length = strlen(text);
          std::printf("got <%s>\n", text);
          mvd_wipepass();
          for (std::size_t at = 0; at < length; ++at) {
            if (text[at] != '\0') return 1;
          }
        }
        return 0;
      },
      options);
}

std::string gotLines(const std::string& output) {
  std::string lines;
  for (std::size_t at = output.find("got "); at != std::string::npos; at = output.find("got ", at + 1)) {
    lines += output.substr(at, output.find_first_of("\r\n", at) - at) + "\n";
  }
  return lines;
}

TEST(Prompt, LinesOfAPipe) {
  ProcessOptions options;
  options.input = "first secret\nsecond\n";
  const ProcessResult result = ask(2, options);
  EXPECT_EQ(result.status, 0) << result.out << result.err;
  EXPECT_EQ(gotLines(result.out), "got <first secret>\ngot <second>\n");
  EXPECT_EQ(result.err, "Password:Password:");
}

TEST(Prompt, EmptyLineIsAnEmptyText) {
  ProcessOptions options;
  options.input = "\nlast without newline";
  EXPECT_EQ(gotLines(ask(2, options).out), "got <>\ngot <last without newline>\n");
}

TEST(Prompt, EndOfInputIsNothing) {
  const ProcessResult result = ask(2, {});
  EXPECT_EQ(gotLines(result.out), "got nothing\n");
  EXPECT_EQ(result.err, "Password:");
}

TEST(Prompt, LongLine) {
  ProcessOptions options;
  const std::string longest(4096, 'x');
  options.input = longest + "\n" + longest + "x\n";
  EXPECT_EQ(gotLines(ask(2, options).out), "got <" + longest + ">\ngot nothing\n");
}

TEST(Prompt, TerminalDoesNotShowWhatIsTyped) {
  ProcessOptions options;
  options.terminal = true;
  options.typeAfter = "Password:";
  options.input = "top secret\n";
  const ProcessResult result = ask(1, options);
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_EQ(result.out, "Password:\r\ngot <top secret>\r\n");
}

}  // namespace
