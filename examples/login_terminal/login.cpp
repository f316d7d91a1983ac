#include "login.h"

#include <cctype>
#include <memory>
#include <sstream>
#include <vector>

#include "cloud/include/cloud_auth_handler.h"

namespace {

bool needsText(const CloudAuthMechanism& mechanism) { return mechanism.answerType == ANSWER_TEXT; }
bool takesText(const CloudAuthMechanism& mechanism) {
  return needsText(mechanism) || mechanism.answerType == ANSWER_TEXT_OOB;
}
// The other answer types want a browser or a program.
bool fitsTerminal(const CloudAuthMechanism& mechanism) {
  return takesText(mechanism) || mechanism.answerType == ANSWER_OOB;
}

// What to show once the mechanism is chosen; ends so that an answer may follow.
std::string promptOf(const CloudAuthMechanism& mechanism) {
  std::string text = mechanism.message;
  if (!text.empty()) text += "\n";
  // Version 0 has no prompt for a new password, nor for what is answered elsewhere.
  const char* const own = mechanism.name == "RESET" ? "New password: " : "Press <enter> to go on: ";
  text += mechanism.answerPrompt.empty() ? own : mechanism.answerPrompt;
  if (std::isalnum(static_cast<unsigned char>(text.back())) != 0) text += ":";
  if (text.back() != ' ') text += " ";
  return text;
}

class Login {
 public:
  Login(const LoginOptions& login, Terminal& at) : options(login), terminal(at) {}
  int run();

 private:
  const CloudAuthMechanism* choose(const std::vector<CloudAuthMechanism>& mechanisms);
  int answer(const CloudAuthMechanism& mechanism);
  Answer ask(const CloudAuthMechanism& mechanism);
  int poll(const CloudAuthMechanism& mechanism);

  const LoginOptions& options;
  Terminal& terminal;
  std::unique_ptr<CloudAuth> client;  // for one login; its end gives the connection back
};

// The order of work. Whether a challenge is `required` decides nothing: there is no request that passes one over.
int Login::run() {
  client.reset(getHandler(options.platform, options.user, options.uuid, &options.profile));
  client->getCurl(options.user, "login_terminal");
  int status = client->startAuthentication(&options.payload);
  CloudAuthChallenge challenge;
  while (status == AUTH_NEXT_CHALLENGE && client->nextChallenge(challenge) != 0) {
    const CloudAuthMechanism* const mechanism = choose(challenge.mechanisms);
    if (mechanism == nullptr) break;
    status = answer(*mechanism);
  }
  return status;
}

// Null where nothing fits a terminal.
const CloudAuthMechanism* Login::choose(const std::vector<CloudAuthMechanism>& mechanisms) {
  std::vector<const CloudAuthMechanism*> fitting;
  for (const CloudAuthMechanism& mechanism : mechanisms) {
    if (fitsTerminal(mechanism)) fitting.push_back(&mechanism);
  }
  if (fitting.empty()) return nullptr;
  if (fitting.size() == 1) return fitting.front();
  for (std::size_t i = 0; i < fitting.size(); ++i) {
    terminal.say(std::to_string(i + 1) + "  " + fitting[i]->selectText + "\n");
  }
  for (;;) {
    const Answer number = terminal.ask("Your choice, 1 to " + std::to_string(fitting.size()) + ": ", Terminal::SHOWN);
    for (std::size_t i = 0; i < fitting.size(); ++i) {
      if (number.text() == std::to_string(i + 1)) return fitting[i];
    }
  }
}

// An empty line in place of a text says that the answer is given elsewhere.
int Login::answer(const CloudAuthMechanism& mechanism) {
  if (mechanism.outOfBand) {
    const int status = client->advanceAuthentication(mechanism.mechanismId, ACTION_START_OOB, "");
    if (status != AUTH_PENDING) return status;
  }
  const Answer given = ask(mechanism);
  if (!takesText(mechanism) || given.text().empty()) return poll(mechanism);
  const int status = client->advanceAuthentication(mechanism.mechanismId, ACTION_ANSWER, given.text());
  return status == AUTH_PENDING ? poll(mechanism) : status;
}

// Whatever proves who somebody is stays off the screen: passwords, codes, and what only the user knows.
Answer Login::ask(const CloudAuthMechanism& mechanism) {
  const std::string prompt = promptOf(mechanism);
  for (;;) {
    Answer given = terminal.ask(prompt, Terminal::HIDDEN);
    if (needsText(mechanism) && given.text().empty()) continue;  // would be refused, and end the login
    if (mechanism.name != "RESET") return given;
    if (terminal.ask("Once more: ", Terminal::HIDDEN).text() == given.text()) return given;
    terminal.say("These are two different ones.\n");
  }
}

// Pace and limit are the caller's affair: the client neither waits nor counts.
int Login::poll(const CloudAuthMechanism& mechanism) {
  const auto end = std::chrono::steady_clock::now() + options.pollLimit;
  std::ostringstream told;
  told << "Waiting for your answer, at most " << std::chrono::duration<double>(options.pollLimit).count()
       << " seconds...\n";
  terminal.say(told.str());
  for (;;) {
    const int status = client->advanceAuthentication(mechanism.mechanismId, ACTION_POLL, "");
    if (status != AUTH_PENDING || std::chrono::steady_clock::now() + options.pollInterval > end) return status;
    terminal.wait(options.pollInterval);
  }
}

}  // namespace

int login(const LoginOptions& options, Terminal& terminal) { return Login(options, terminal).run(); }
