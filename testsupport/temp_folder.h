// A folder that goes with its owner, and small file helpers.
#pragma once

#include <set>
#include <string>

namespace testsupport {

class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  const std::string& path() const { return m_path; }
  std::string file(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

std::string readFile(const std::string& path);  // throws std::runtime_error when it cannot be read
void writeFile(const std::string& path, const std::string& content, unsigned mode = 0644);
bool exists(const std::string& path);  // without following a symbolic link
unsigned modeOf(const std::string& path);
std::set<std::string> namesIn(const std::string& folder);

}  // namespace testsupport
