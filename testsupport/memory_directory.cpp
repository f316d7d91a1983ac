#include "testsupport/memory_directory.h"

#include <algorithm>
#include <iterator>
#include <set>

#include "basalt/directory/directory_name.h"
#include "base/include/exceptions.h"
#include "base/include/string_helpers.h"

namespace testsupport {
namespace {

constexpr int LDAP_SERVER_DOWN_CODE = -1;
constexpr int LDAP_TIMEOUT_CODE = -5;
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

// A connection that stands knows no search for servers: one that is not there any more gives no answer.
[[noreturn]] void failSearching(const MemoryDirectory::Failure& failure, const DirectorySearch& what,
                                const std::string& domain) {
  using Kind = MemoryDirectory::Failure::Kind;
  if (failure.kind == Kind::NoServers || failure.kind == Kind::Unreachable) {
    LUMO_THROW(LDAPException, LDAP_TIMEOUT_CODE, "Cannot search '%s': no answer in time", what.base.c_str());
  }
  fail(failure, domain);
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

// The values of the object's `cn` and, where it is not among them, the one of its name.
std::vector<std::string> commonNames(const lumo::ADObject& object) {
  std::vector<std::string> values = object[AD_CN].values();
  const auto name = lumo::comparableName(object.dn());
  if (!name || name->commonName.empty()) return values;
  const bool there = std::any_of(values.begin(), values.end(),
                                 [&](const auto& value) { return lower(value) == lower(name->commonName); });
  if (!there) values.push_back(name->commonName);
  return values;
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
  const auto cns = commonNames(*object);
  if (!cns.empty()) object->set(AD_CN, cns);
  const std::lock_guard<std::mutex> lock(m_mutex);
  removeLocked(dn);
  m_objects[dn] = {object, dnsDomainOf(dn)};
  for (const std::string& cn : cns) m_byCommonName.emplace(cn, dn);
}

void MemoryDirectory::remove(const std::string& dn) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  removeLocked(dn);
}

void MemoryDirectory::removeLocked(const std::string& dn) {
  const auto old = m_objects.find(dn);
  if (old == m_objects.end()) return;
  for (const std::string& cn : commonNames(*old->second.object)) {
    const auto [first, last] = m_byCommonName.equal_range(cn);
    for (auto one = first; one != last;) {
      one = lower(one->second) == lower(dn) ? m_byCommonName.erase(one) : std::next(one);
    }
  }
  m_objects.erase(old);
}

void MemoryDirectory::makeUnreadable(const std::string& dn, const std::string& attribute) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  (*m_objects.at(dn).object)[attribute] = lumo::ADAttribute::unreadable();
}

void MemoryDirectory::hideFromCatalogue(const std::string& attribute) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_hidden.push_back(attribute);
}

void MemoryDirectory::Failures::set(const Failure& failure, int times, Servers servers) {
  if (servers != Servers::Catalogue) of[0] = Pending{failure, times};
  if (servers != Servers::Domain) of[1] = Pending{failure, times};
  // One count for all servers together.
  shared = servers == Servers::All;
}

const MemoryDirectory::Failure* MemoryDirectory::Failures::meet(const Target& target) {
  std::optional<Pending>& due = of[target.globalCatalog ? 1 : 0];
  if (!due || due->times == 0) return nullptr;
  if (due->times > 0) {
    --due->times;
    if (shared) of[target.globalCatalog ? 0 : 1] = due;
  }
  return &due->failure;
}

void MemoryDirectory::failOpen(Failure failure, int times, Servers servers) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_openFailures.set(failure, times, servers);
}

void MemoryDirectory::failSearch(Failure failure, int times, Servers servers) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_searchFailures.set(failure, times, servers);
}

void MemoryDirectory::clearFailures() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_openFailures = {};
  m_searchFailures = {};
}

std::vector<DirectoryConnector::Target> MemoryDirectory::opened() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_opened;
}

std::vector<MemoryDirectory::Search> MemoryDirectory::searches() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_searches;
}

void MemoryDirectory::forgetQuestions() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_opened.clear();
  m_searches.clear();
}

void MemoryDirectory::setSite(const std::string& site) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_site = site;
}

int MemoryDirectory::sitesAsked() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_sitesAsked;
}

std::string MemoryDirectory::site(const std::string&) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  ++m_sitesAsked;
  return m_site;
}

std::unique_ptr<DirectoryConnection> MemoryDirectory::open(const Target& target) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_opened.push_back(target);
  if (const Failure* failure = m_openFailures.meet(target)) fail(*failure, target.domain);
  return std::make_unique<Connection>(*this, target);
}

MemoryDirectory::Candidates MemoryDirectory::candidates(const std::string& base, const DirectorySearch& what) const {
  Candidates result;
  const auto add = [&](const std::string& dn) {
    const auto found = m_objects.find(dn);
    if (found != m_objects.end()) result.objects.push_back(found);
  };
  if (what.scope == SearchScope::Base) {
    add(base);
  } else if (const auto names = namesAskedFor(what.filter)) {
    std::set<std::string, lumo::StringCaseLessThan> each(names->whole.begin(), names->whole.end());
    for (const std::string& cn : names->common) {
      const auto [first, last] = m_byCommonName.equal_range(cn);
      for (auto one = first; one != last; ++one) each.insert(one->second);
    }
    for (const std::string& dn : each) add(dn);
    result.filtered = true;
  } else {
    for (auto one = m_objects.begin(); one != m_objects.end(); ++one) result.objects.push_back(one);
  }
  return result;
}

// The object as the server shows it.
ADObjectPtr MemoryDirectory::shown(const Target& target, const lumo::ADObject& object,
                                   const DirectorySearch& what) const {
  ADObjectPtr copy(new lumo::ADObject(object.dn()));
  for (const auto& [name, attribute] : object.attributes()) {
    const bool visible = !target.globalCatalog || !holds(m_hidden, name);
    if (visible && (what.attributes.empty() || holds(what.attributes, name))) (*copy)[name] = attribute;
  }
  return copy;
}

std::vector<ADObjectPtr> MemoryDirectory::search(const Target& target, const DirectorySearch& what) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_searches.push_back({target.globalCatalog, target.domain, what});
  if (const Failure* failure = m_searchFailures.meet(target)) failSearching(*failure, what, target.domain);
  matchesFilter(lumo::ADObject(), what.filter);  // a fault in it is told whatever objects there are
  const std::string domain = lower(target.domain);
  const std::string base = what.base.empty() && !target.globalCatalog ? dnOf(target.domain) : what.base;
  std::vector<ADObjectPtr> found;
  const Candidates looked = candidates(base, what);
  for (const auto& one : looked.objects) {
    const auto& [dn, held] = *one;
    if (!target.globalCatalog && held.domain != domain) continue;
    // The filter sees the whole object: a catalogue may know by an index what it does not show.
    if (!inScope(dn, base, what.scope)) continue;
    if (looked.filtered || matchesFilter(*held.object, what.filter)) found.push_back(shown(target, *held.object, what));
  }
  return found;
}

}  // namespace testsupport
