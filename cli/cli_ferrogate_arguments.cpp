#include "cli/cli_ferrogate_arguments.h"

#include <string.h>

#include <string_view>

#include "cli/cli_ferrogate.h"
#include "cli/cli_ferrogate_trace.h"

namespace {

using Word = std::string_view;

constexpr Word PASSWORD = "password";
constexpr Word MASK = "******";

// Where secrets stand in a word; length 0 where none does.
struct Secrets {
  std::size_t password = 0;
  std::size_t passwordLength = 0;
  UrlPassword inAddress;

  bool any() const { return passwordLength != 0 || inAddress.length != 0; }
};

bool isLong(Word word) { return word.size() > 2 && word.substr(0, 2) == "--"; }
bool isCluster(Word word) { return word.size() > 1 && word[0] == '-' && word[1] != '-'; }
bool begins(Word whole, Word beginning) { return !beginning.empty() && whole.substr(0, beginning.size()) == beginning; }

// "NAME" of "--NAME" and "--NAME=VALUE".
Word longName(Word word) { return word.substr(2, word.find('=') - 2); }

// Where the password begins in a word that is an option and has it attached; npos where the next word has it or none.
std::size_t attachedPassword(Word word) {
  if (isLong(word)) {
    const auto equals = word.find('=');
    return equals != Word::npos && begins(PASSWORD, longName(word)) ? equals + 1 : Word::npos;
  }
  const auto letter = isCluster(word) ? word.find('p') : Word::npos;
  return letter == Word::npos || letter + 1 == word.size() ? Word::npos : letter + 1;
}

// May the word behind this one be a password?
bool isFollowedByPassword(Word word) {
  if (isLong(word)) return word.find('=') == Word::npos && begins(PASSWORD, longName(word));
  // "-pass WORD" is a slip for "--pass WORD", and WORD a secret all the same.
  return isCluster(word) && (word.back() == 'p' || begins(PASSWORD, word.substr(1)));
}

Secrets secretsIn(Word word, bool isPassword) {
  Secrets found;
  const auto start = isPassword ? 0 : attachedPassword(word);
  if (start != Word::npos) {
    found.password = start;
    found.passwordLength = word.size() - start;
  }
  found.inAddress = findUrlPassword(word);
  return found;
}

void overwrite(char* word, const Secrets& secrets) {
  memset(word + secrets.inAddress.start, '*', secrets.inAddress.length);
  explicit_bzero(word + secrets.password, secrets.passwordLength);
}

}  // namespace

PrivateArguments::PrivateArguments(int argc, char** argv) : m_words(argv, argv + argc) {
  m_words.push_back(nullptr);
  const char* const printed = unknownLongOption(argc, argv);
  std::vector<Secrets> secrets(m_words.size());
  m_copies.reserve(m_words.size());
  for (int i = 1; i < argc; ++i) {
    const Word word = argv[i];
    const auto at = static_cast<std::size_t>(i);
    secrets[at] = secretsIn(word, i > 1 && isFollowedByPassword(argv[i - 1]));
    if (!secrets[at].any()) continue;
    Copy copy(word.begin(), word.end());
    if (argv[i] == printed && word.find('=') != Word::npos) {
      copy.resize(word.find('=') + 1);
      copy.insert(copy.end(), MASK.begin(), MASK.end());
    }
    copy.push_back('\0');
    m_copies.push_back(std::move(copy));
    m_words[at] = m_copies.back().data();
  }
  for (int i = 1; i < argc; ++i) overwrite(argv[i], secrets[static_cast<std::size_t>(i)]);
}
