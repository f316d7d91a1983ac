// What a binding of the agent remembers of its searches. Internal to the binding.
#pragma once

#include <chrono>
#include <cstddef>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "basalt/directory/directory_object.h"
#include "base/include/mutex.h"

namespace lumo {

// Answers by question. No object that was given to it, or that it gave away, is one that it keeps: callers may write
// into theirs. Any thread.
class SearchMemory {
 public:
  static constexpr std::chrono::minutes LIFE{5};
  // Of all answers together, an answer without objects counted as one; the oldest go first.
  static constexpr std::size_t MAX_OBJECTS = 150000;
  // A longer answer is not remembered: whoever asks such questions wants them answered anew.
  static constexpr std::size_t MAX_ANSWER = 1000;

  SearchMemory() = default;
  explicit SearchMemory(std::size_t maxObjects) : m_maxObjects(maxObjects) {}

  // The answer, its objects copies; nothing when there is none, or when it is older than LIFE.
  std::optional<ADObjectList> read(const std::string& question);
  // Is there an answer?
  bool holds(const std::string& question);
  void store(const std::string& question, const ADObjectList& answer);
  // The same with the objects themselves in place of copies: nobody else may hold them.
  void adopt(const std::string& question, ADObjectList answer);
  void forget(const std::string& question);
  // Of all answers together, as MAX_OBJECTS counts them.
  std::size_t size();

 private:
  struct Entry {
    std::string question;
    ADObjectList answer;
    std::chrono::steady_clock::time_point until;
    std::size_t weight() const { return answer.empty() ? 1 : answer.size(); }
  };
  using Entries = std::list<Entry>;

  void dropExpired();
  void drop(Entries::iterator entry);

  const std::size_t m_maxObjects = MAX_OBJECTS;
  Mutex m_mutex;
  Entries m_entries;  // oldest first
  std::unordered_map<std::string_view, Entries::iterator> m_byQuestion;
  std::size_t m_size = 0;
};

}  // namespace lumo
