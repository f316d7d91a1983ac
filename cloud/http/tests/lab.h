// The private domain as a test sees it: its variables, its switches, its logs.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/include/string_helpers.h"
#include "testsupport/process.h"

namespace labtest {

inline std::string lab(const std::string& name) {
  const char* value = std::getenv(("FERRO_LAB_" + name).c_str());
  return value == nullptr ? std::string() : value;
}

inline std::string passwordOf(const std::string& user) { return lab("PASSWORD_" + upper(user)); }

inline void control(std::vector<std::string> command) {
  command.insert(command.begin(), {lab("TOOL"), "ctl"});
  const auto result = testsupport::run(command);
  ASSERT_EQ(result.status, 0) << result.out << result.err;
}

// Looks again and again until it is so, or the time is over.
inline bool comesTrue(const std::function<bool()>& so, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!so()) {
    if (std::chrono::steady_clock::now() >= end) return so();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// One line of a proxy's access log.
struct Entry {
  std::string client, user, status, method, url, auth;
};

// What a log gains from now on. Squid writes a CONNECT's line when its tunnel closes.
class LogTail {
 public:
  // The log of a proxy by its name, or the one that a variable of the lab names.
  explicit LogTail(const std::string& name, const std::string& kind = "LOG_")
      : m_path(lab(kind + name)), m_start(size()) {}

  // Waits until the log has grown by so many lines, then gives all that are there.
  std::vector<Entry> entries(size_t count) const {
    return waitFor([count](const std::vector<Entry>& found) { return found.size() >= count; });
  }
  // Waits for so many tunnels that were opened and gives their users.
  std::vector<std::string> letIn(size_t count) const {
    return opened(waitFor([count](const std::vector<Entry>& found) { return opened(found).size() >= count; }));
  }
  static std::vector<std::string> opened(const std::vector<Entry>& entries) {
    std::vector<std::string> users;
    for (const Entry& entry : entries) {
      if (entry.status == "200") users.push_back(entry.user);
    }
    return users;
  }

 private:
  std::vector<Entry> waitFor(const std::function<bool(const std::vector<Entry>&)>& enough) const {
    std::vector<Entry> found;
    const auto grown = [&] { return enough(found = read()); };
    EXPECT_TRUE(comesTrue(grown, std::chrono::seconds(60))) << m_path << ": " << found.size() << " lines";
    return found;
  }
  size_t size() const {
    std::ifstream in(m_path, std::ios::ate);
    return in ? static_cast<size_t>(in.tellg()) : 0;
  }
  std::vector<Entry> read() const {
    std::ifstream in(m_path);
    in.seekg(static_cast<std::streamoff>(m_start));
    std::vector<Entry> found;
    for (std::string line; std::getline(in, line);) {
      Entry entry;
      std::istringstream fields(line);
      for (std::string field; fields >> field;) {
        const std::string value = field.substr(field.find('=') + 1);
        if (startsWith(field, "user=", false, false)) entry.user = value;
        if (startsWith(field, "status=", false, false)) entry.status = value;
        if (startsWith(field, "method=", false, false)) entry.method = value;
        if (startsWith(field, "client=", false, false)) entry.client = value;
        if (startsWith(field, "url=", false, false)) entry.url = value;
        if (startsWith(field, "auth=", false, false)) entry.auth = value;
      }
      found.push_back(entry);
    }
    return found;
  }

  std::string m_path;
  size_t m_start;
};

}  // namespace labtest
