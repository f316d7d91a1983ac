#include "testsupport/memory_directory.h"

#include <algorithm>

#include "base/include/exceptions.h"
#include "base/include/string_helpers.h"

namespace testsupport {
namespace {

constexpr int LDAP_SERVER_DOWN_CODE = -1;
constexpr int LDAP_INVALID_CREDENTIALS_CODE = 49;

[[noreturn]] void fail(const MemoryDirectory::Failure& failure, const std::string& domain) {
  using Kind = MemoryDirectory::Failure::Kind;
  switch (failure.kind) {
    case Kind::NoServers:
      LUMO_THROW(lumo::DNSUnavailableException, -1, "No directory server of the domain '%s' was found", domain.c_str());
    case Kind::Unreachable:
      LUMO_THROW(lumo::IOException, -1, "No directory server of the domain '%s' answers", domain.c_str());
    case Kind::Refused:
      LUMO_THROW(LDAPException, LDAP_INVALID_CREDENTIALS_CODE, "Invalid credentials");
    case Kind::Gone:
      LUMO_THROW(LDAPException, LDAP_SERVER_DOWN_CODE, "Can't contact LDAP server");
    case Kind::Server:
      break;
  }
  LUMO_THROW(LDAPException, failure.rc, "%s", failure.message.c_str());
}

std::string dnOf(const std::string& domain) {
  std::vector<std::string> parts;
  StringSplit('.', domain, parts);
  std::string dn;
  for (const std::string& part : parts) dn += (dn.empty() ? "DC=" : ",DC=") + part;
  return dn;
}

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// Is the name the base or below it, as far as the scope reaches? An empty base is above everything.
bool inScope(const std::string& dn, const std::string& base, SearchScope scope) {
  const std::string name = lower(dn);
  const std::string top = lower(base);
  if (name == top) return scope != SearchScope::OneLevel;
  if (scope == SearchScope::Base) return false;
  if (!top.empty() && !endsWith(name, "," + top)) return false;
  if (scope == SearchScope::Subtree) return true;
  const std::string above = top.empty() ? name : name.substr(0, name.size() - top.size() - 1);
  for (std::size_t comma = above.find(','); comma != std::string::npos; comma = above.find(',', comma + 1)) {
    if (comma == 0 || above[comma - 1] != '\\') return false;
  }
  return true;
}

bool holds(const std::vector<std::string>& names, const std::string& name) {
  return std::any_of(names.begin(), names.end(), [&](const auto& one) { return lower(one) == lower(name); });
}

}  // namespace

class MemoryDirectory::Connection : public DirectoryConnection {
 public:
  Connection(MemoryDirectory& directory, Target target) : m_directory(directory), m_target(std::move(target)) {}

  std::vector<ADObjectPtr> search(const DirectorySearch& what) override { return m_directory.search(m_target, what); }

  ADObjectPtr rootDse() override {
    ADObjectPtr root(new lumo::ADObject(""));
    root->set("defaultNamingContext", {dnOf(m_target.domain)});
    root->set("rootDomainNamingContext", {dnOf(m_directory.m_rootDomain)});
    return root;
  }

 private:
  MemoryDirectory& m_directory;
  const Target m_target;
};

MemoryDirectory::MemoryDirectory(std::string rootDomain) : m_rootDomain(std::move(rootDomain)) {}

void MemoryDirectory::add(const std::string& dn, const std::map<std::string, std::vector<std::string>>& attributes) {
  ADObjectPtr object(new lumo::ADObject(dn));
  for (const auto& [name, values] : attributes) object->set(name, values);
  object->set(AD_DN, {dn});
  if (!object->attributeExists("objectClass", true)) object->set("objectClass", {"top"});
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_objects[dn] = object;
}

void MemoryDirectory::remove(const std::string& dn) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_objects.erase(dn);
}

void MemoryDirectory::hideFromCatalogue(const std::string& attribute) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_hidden.push_back(attribute);
}

void MemoryDirectory::failOpen(Failure failure, int times) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_openFailure.reset(new Pending{std::move(failure), times});
}

void MemoryDirectory::failSearch(Failure failure, int times) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_searchFailure.reset(new Pending{std::move(failure), times});
}

void MemoryDirectory::clearFailures() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_openFailure.reset();
  m_searchFailure.reset();
}

std::vector<DirectoryConnector::Target> MemoryDirectory::opened() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_opened;
}

std::vector<MemoryDirectory::Search> MemoryDirectory::searches() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_searches;
}

void MemoryDirectory::setSite(const std::string& site) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_site = site;
}

std::string MemoryDirectory::site(const std::string&) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_site;
}

std::unique_ptr<DirectoryConnection> MemoryDirectory::open(const Target& target) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_opened.push_back(target);
  if (m_openFailure && m_openFailure->times != 0) {
    if (m_openFailure->times > 0) --m_openFailure->times;
    fail(m_openFailure->failure, target.domain);
  }
  return std::make_unique<Connection>(*this, target);
}

std::vector<ADObjectPtr> MemoryDirectory::search(const Target& target, const DirectorySearch& what) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_searches.push_back({target.globalCatalog, target.domain, what});
  if (m_searchFailure && m_searchFailure->times != 0) {
    if (m_searchFailure->times > 0) --m_searchFailure->times;
    fail(m_searchFailure->failure, target.domain);
  }
  const std::string base = what.base.empty() && !target.globalCatalog ? dnOf(target.domain) : what.base;
  std::vector<ADObjectPtr> found;
  for (const auto& [dn, object] : m_objects) {
    if (!target.globalCatalog && dnsDomainOf(dn) != lower(target.domain)) continue;
    ADObjectPtr visible(new lumo::ADObject(dn));
    for (const auto& [name, attribute] : object->attributes()) {
      if (!target.globalCatalog || !holds(m_hidden, name)) visible->set(name, attribute.values());
    }
    // The filter sees the whole object: a catalogue may know by an index what it does not show.
    if (!inScope(dn, base, what.scope) || !matchesFilter(*object, what.filter)) continue;
    ADObjectPtr copy(new lumo::ADObject(dn));
    for (const auto& [name, attribute] : visible->attributes()) {
      if (what.attributes.empty() || holds(what.attributes, name)) copy->set(name, attribute.values());
    }
    found.push_back(copy);
  }
  return found;
}

}  // namespace testsupport
