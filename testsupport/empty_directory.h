// A directory of which nobody knows an account.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "basalt/directory/directory.h"

namespace testsupport {

// In force from construction to destruction: every domain has a server, and no server an object.
class EmptyDirectory : public DirectoryConnector {
 public:
  EmptyDirectory() { setInstance(this); }
  ~EmptyDirectory() override { setInstance(nullptr); }
  EmptyDirectory(const EmptyDirectory&) = delete;
  EmptyDirectory& operator=(const EmptyDirectory&) = delete;

  std::unique_ptr<DirectoryConnection> open(const Target&) override {
    ++opened;
    return std::make_unique<Connection>();
  }
  std::string site(const std::string&) override { return {}; }

  std::atomic<int> opened{0};  // connections, by any thread

 private:
  class Connection : public DirectoryConnection {
   public:
    std::vector<ADObjectPtr> search(const DirectorySearch&) override { return {}; }
    ADObjectPtr rootDse() override { return ADObjectPtr(new lumo::ADObject("")); }
  };
};

}  // namespace testsupport
