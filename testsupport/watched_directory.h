// A directory that lets a test take part in what is asked of another one.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "basalt/directory/directory.h"

namespace testsupport {

// Tells of each question before it goes on; what `onOpen` and `onSearch` throw is that question's failure. To be set
// while nobody asks.
class WatchedDirectory : public DirectoryConnector {
 public:
  explicit WatchedDirectory(DirectoryConnector& inner) : m_inner(inner) {}

  std::function<void(const Target&)> onOpen = [](const Target&) {};
  std::function<void(const Target&, const DirectorySearch&)> onSearch = [](const Target&, const DirectorySearch&) {};
  std::function<void(const DirectorySearch&)> onAnnounce = [](const DirectorySearch&) {};

  std::unique_ptr<DirectoryConnection> open(const Target& target) override {
    onOpen(target);
    return std::make_unique<Connection>(*this, m_inner.open(target), target);
  }
  std::string site(const std::string& domain) override { return m_inner.site(domain); }

 private:
  class Connection : public DirectoryConnection {
   public:
    Connection(WatchedDirectory& directory, std::unique_ptr<DirectoryConnection> inner, Target target)
        : m_directory(directory), m_inner(std::move(inner)), m_target(std::move(target)) {}
    std::vector<ADObjectPtr> search(const DirectorySearch& what) override {
      m_directory.onSearch(m_target, what);
      return m_inner->search(what);
    }
    void announce(const DirectorySearch& what) override {
      m_directory.onAnnounce(what);
      m_inner->announce(what);
    }
    ADObjectPtr rootDse() override { return m_inner->rootDse(); }

   private:
    WatchedDirectory& m_directory;
    const std::unique_ptr<DirectoryConnection> m_inner;
    const Target m_target;
  };

  DirectoryConnector& m_inner;
};

}  // namespace testsupport
