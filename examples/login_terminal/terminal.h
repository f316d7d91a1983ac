// The person at the keyboard: what is shown, asked and waited for at the terminal of this process.
#pragma once

#include <chrono>
#include <exception>
#include <stdexcept>
#include <string>

// A line that was typed, in memory of its own that is wiped when it goes.
class Answer {
 public:
  Answer() { m_text.reserve(LONGEST); }  // never grows, so no copy stays behind
  Answer(Answer&&) = default;
  Answer& operator=(Answer&&) = delete;
  ~Answer();

  const std::string& text() const { return m_text; }
  // Throws std::length_error past LONGEST.
  void append(char c);

  static constexpr std::size_t LONGEST = 4'096;  // no terminal gives more as one line

 private:
  std::string m_text;
};

// A signal asked this process to end while somebody was being waited for.
struct Interrupted : std::exception {
  explicit Interrupted(int number) : signal(number) {}
  const char* what() const noexcept override { return "interrupted"; }
  int signal;
};

// The user ended the input, or the terminal is gone.
struct EndOfInput : std::runtime_error {
  EndOfInput() : std::runtime_error("no answer: the input has ended") {}
};

// One in a process, one thread. As long as it lives, HUP, INT, QUIT and TERM come out of `ask` and `wait` as
// Interrupted; anywhere else they end the process at once. The terminal's settings are changed within these two only.
class Terminal {
 public:
  enum Echo { SHOWN, HIDDEN };

  // Throws std::runtime_error "There is no terminal to ask at: ..."
  Terminal();
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  // Control characters come out as "?": many texts are a peer's. Throws EndOfInput when the terminal is gone.
  void say(const std::string& text);
  // Shows the prompt and reads a line; what was typed before the prompt is no answer.
  Answer ask(const std::string& prompt, Echo echo);
  // What is typed meanwhile is not shown, and forgotten.
  void wait(std::chrono::milliseconds time);

 private:
  Answer readLine();

  int tty;
};
