#include "cli/cli_ferrogate_arguments.h"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "cli/cli_ferrogate.h"

namespace {

using testing::ElementsAre;
using Words = std::vector<std::string>;

// A command line in memory that can be written to, as the kernel gives it.
struct CommandLine {
  explicit CommandLine(Words given) : words(std::move(given)) {
    words.insert(words.begin(), "ferrogate");
    for (auto& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
  }
  int count() const { return static_cast<int>(words.size()); }

  Words words;
  std::vector<char*> pointers;
};

struct Taken {
  Words listed;  // what the process list shows, zeros as they are; without the program's name
  Words read;    // what the parser reads
};

Taken take(const Words& given) {
  CommandLine line(given);
  PrivateArguments arguments(line.count(), line.pointers.data());
  Taken taken;
  for (int i = 1; i < line.count(); ++i) taken.read.emplace_back(arguments.get()[i]);
  EXPECT_EQ(arguments.get()[line.count()], nullptr);
  taken.listed.assign(line.words.begin() + 1, line.words.end());
  return taken;
}

TEST(PrivateArguments, TakesThePasswordFromEveryForm) {
  const std::string gone(6, '\0');
  struct Row {
    Words given;
    Words listed;
  };
  const Row rows[] = {
      {{"-S", "-p", "s3cret"}, {"-S", "-p", gone}},
      {{"-S", "-ps3cret"}, {"-S", "-p" + gone}},
      {{"-S", "-Vps3cret", "-s", "h:1"}, {"-S", "-Vp" + gone, "-s", "h:1"}},
      {{"-SVp", "s3cret"}, {"-SVp", gone}},
      {{"--set", "--password", "s3cret"}, {"--set", "--password", gone}},
      {{"--set", "--password=s3cret"}, {"--set", "--password=" + gone}},
      {{"--set", "--pass", "s3cret"}, {"--set", "--pass", gone}},
      {{"--set", "--p=s3cret"}, {"--set", "--p=" + gone}},
      {{"-S", "-p", "s3cret", "-p", "s3cret"}, {"-S", "-p", gone, "-p", gone}},
      {{"-T", "-X", "-p", "s3cret"}, {"-T", "-X", "-p", gone}},
      {{"-p", "s3cret"}, {"-p", gone}},
      {{"-L", "-p", "s3cret"}, {"-L", "-p", gone}},
      {{"word", "-S", "--", "-p", "s3cret"}, {"word", "-S", "--", "-p", gone}},
      {{"-S", "-u", "-p", "-p", "s3cret"}, {"-S", "-u", "-p", std::string(2, '\0'), gone}},
      {{"-S", "-pass", "s3cret"}, {"-S", "-p" + std::string(3, '\0'), gone}},
      {{"-T", "-c", "https://bob:s3cret@h/x"}, {"-T", "-c", "https://bob:******@h/x"}},
      {{"-T", "--opx=https://bob:s3cret@h/x"}, {"-T", "--opx=https://bob:******@h/x"}},
      {{"-S", "-sbob:s3cret@h:1"}, {"-S", "-sbob:******@h:1"}},
  };
  for (const auto& row : rows) {
    const Taken taken = take(row.given);
    EXPECT_EQ(taken.listed, row.listed) << testing::PrintToString(row.given);
    EXPECT_EQ(taken.read, row.given) << "the parser reads what was given";
  }
}

TEST(PrivateArguments, LeavesOtherWordsWhereTheyAre) {
  CommandLine line({"-S", "-u", "bob", "--server", "h:1", "-r", "true", "--", "", "-", "p", "--verbose"});
  PrivateArguments arguments(line.count(), line.pointers.data());
  for (int i = 0; i < line.count(); ++i) EXPECT_EQ(arguments.get()[i], line.pointers[static_cast<std::size_t>(i)]);
  char* nothing[] = {nullptr};
  EXPECT_EQ(PrivateArguments(0, nothing).get()[0], nullptr);
}

TEST(PrivateArguments, GivesGetoptAMaskForWhatItWouldPrint) {
  EXPECT_THAT(take({"-L", "--password=s3cret"}).read, ElementsAre("-L", "--password=******"));
  EXPECT_THAT(take({"--pass=s3cret", "-S"}).read, ElementsAre("--pass=******", "-S"));
  EXPECT_THAT(take({"-S", "--opx=https://bob:s3cret@h/"}).read, ElementsAre("-S", "--opx=******"));
  EXPECT_THAT(take({"-S", "-s", "h:1", "--opx=https://bob:s3cret@h/"}).read.back(), "--opx=******");
  // What only looks so is the argument of an option.
  EXPECT_THAT(take({"-S", "-p", "--opx=https://bob:s3cret@h/"}).read.back(), "--opx=https://bob:s3cret@h/");
  EXPECT_THAT(take({"-S", "-u", "--opx=https://bob:s3cret@h/"}).read.back(), "--opx=https://bob:s3cret@h/");
  EXPECT_THAT(take({"-S", "-V", "-X", "--opx=https://bob:s3cret@h/"}).read.back(), "--opx=https://bob:s3cret@h/");
}

TEST(FirstCommand, IsTheFirstLetterAndChangesNothing) {
  const auto first = [](const Words& given) {
    CommandLine line(given);
    const std::vector<char*> before = line.pointers;
    testing::internal::CaptureStderr();
    const int letter = firstCommand(line.count(), line.pointers.data());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(line.pointers, before);
    return letter;
  };
  EXPECT_EQ(first({"word", "--set", "-L"}), 'S');
  EXPECT_EQ(first({"-DV"}), 'D');
  EXPECT_EQ(first({"-X", "-S"}), '?');
  EXPECT_EQ(first({"word"}), -1);
}

TEST(ExceptionGuard, ReportsWhatIsNoException) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(guarded([]() -> int { throw 7; }), 6);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: Unknown exception\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(guarded([]() -> int { throw std::runtime_error("words"); }), 6);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error: words\n");
  EXPECT_EQ(guarded([] { return 158; }), 158);
}

}  // namespace
