// Searches of an LDAP connection: pages, entries, values in ranges.
#include <algorithm>
#include <iterator>
#include <utility>

#include "basalt/directory/directory_ldap_connection.h"
#include "basalt/directory/directory_ldap_handles.h"
#include "base/include/exceptions.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"

namespace lumo {
namespace {

// More than any forest holds: a server whose pages never end is given up.
constexpr int MAX_PAGES = 2000;
constexpr int MAX_RANGES = 1000;
constexpr std::size_t MAX_BASE = 200;  // bytes of a name that are shown
constexpr char RANGE_OPTION[] = ";range=";

int scopeOf(SearchScope scope) {
  switch (scope) {
    case SearchScope::Base:
      return LDAP_SCOPE_BASE;
    case SearchScope::OneLevel:
      return LDAP_SCOPE_ONELEVEL;
    case SearchScope::Subtree:
      break;
  }
  return LDAP_SCOPE_SUBTREE;
}

LdapControl pageControl(LDAP* ld, const std::string& cookie) {
  std::string bytes = cookie;
  berval value{bytes.size(), bytes.data()};
  LDAPControl* control = nullptr;
  if (ldap_create_page_control(ld, LdapConnection::PAGE_SIZE, &value, 1, &control) != LDAP_SUCCESS) {
    throw std::bad_alloc();
  }
  return LdapControl(control);
}

// The cookie of the next page, empty behind the last one. Returns the library's result code: what cannot be decoded
// must not be taken for the last page, or part of the objects would look like all of them.
int readCookie(LDAP* ld, LDAPControl** controls, std::string& bytes) {
  LDAPControl* page = ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, controls, nullptr);
  if (page == nullptr) return LDAP_SUCCESS;
  berval cookie{};
  ber_int_t estimate = 0;
  const int rc = ldap_parse_pageresponse_control(ld, page, &estimate, &cookie);
  if (rc == LDAP_SUCCESS && cookie.bv_val != nullptr) bytes.assign(cookie.bv_val, cookie.bv_len);
  ber_memfree(cookie.bv_val);
  return rc;
}

// Where the values in an attribute named "NAME;range=0-1499" go on; nothing behind the last ("NAME;range=1500-*").
struct Range {
  std::string attribute;
  std::string next;
};
bool readRange(const std::string& name, Range& range) {
  if (name.find(';') == std::string::npos) return false;
  const std::size_t option = lower(name).find(RANGE_OPTION);
  if (option == std::string::npos) return false;
  range = {name.substr(0, option), {}};
  const std::string last = name.substr(name.rfind('-') + 1);
  if (last.empty() || last.size() > 9 || last.find_first_not_of("0123456789") != std::string::npos) return true;
  range.next = std::to_string(std::stol(last) + 1);
  return true;
}

std::string textOf(const berval& bytes) { return {bytes.bv_val, bytes.bv_len}; }

bool isSame(const DirectorySearch& a, const DirectorySearch& b) {
  return a.base == b.base && a.scope == b.scope && a.filter == b.filter && a.attributes == b.attributes &&
         a.paged == b.paged;
}

std::string doingOf(const DirectorySearch& what) { return "Cannot search '" + printable(what.base, MAX_BASE) + "'"; }

}  // namespace

// What the server sent, not looked at yet.
struct LdapConnection::Page {
  LdapMessage entries;
  std::string cookie;
};

std::vector<ADObjectPtr> LdapConnection::search(const DirectorySearch& what) {
  // The question for the base belongs to the search.
  const SteadyTime end = std::chrono::steady_clock::now() + m_limits.search;
  DirectorySearch whole = what;
  if (whole.base.empty()) whole.base = defaultBase(end);
  return searchAll(whole, what.paged && what.scope != SearchScope::Base, end);
}

void LdapConnection::announce(const DirectorySearch& what) {
  DirectorySearch whole = what;
  if (whole.base.empty()) {
    if (!m_globalCatalog && m_defaultBase.empty()) return;
    whole.base = m_defaultBase;
  }
  try {
    const NoBrokenPipe guard;
    const int id = send(whole, nullptr, std::chrono::steady_clock::now() + m_limits.search);
    m_announced.push_back({std::move(whole), id});
  } catch (const LDAPException&) {
    // The search itself will meet it.
  }
}

std::optional<int> LdapConnection::takeAnnounced(const DirectorySearch& what) {
  if (!m_announced.empty() && isSame(m_announced.front().what, what)) {
    const int id = m_announced.front().id;
    m_announced.pop_front();
    return id;
  }
  for (const Announced& other : m_announced) ldap_abandon_ext(m_ld.get(), other.id, nullptr, nullptr);
  m_announced.clear();
  return std::nullopt;
}

ADObjectPtr LdapConnection::rootDse() { return readRoot(std::chrono::steady_clock::now() + m_limits.search); }

ADObjectPtr LdapConnection::readRoot(SteadyTime end) {
  const auto found = searchAll({"", SearchScope::Base, "(objectClass=*)", {}}, false, end);
  if (found.empty()) LUMO_THROW(LDAPException, LDAP_NO_SUCH_OBJECT, "The server does not show its root object");
  return found.front();
}

// A catalogue takes the empty base for the forest; a domain's server would show its own root object alone.
std::string LdapConnection::defaultBase(SteadyTime end) {
  if (m_globalCatalog) return {};
  if (m_defaultBase.empty()) m_defaultBase = (*readRoot(end))["defaultNamingContext"].toString();
  return m_defaultBase;
}

std::vector<ADObjectPtr> LdapConnection::searchAll(const DirectorySearch& what, bool paged, SteadyTime end) {
  const NoBrokenPipe guard;
  std::vector<ADObjectPtr> objects;
  requireUsable(doingOf(what));
  if (!paged) {
    objects = searchOnce(what, end);
  } else {
    takeAnnounced(what);
    const std::string first;
    Page page = receive(send(what, &first, end), what, end);
    for (int pages = 1; !page.cookie.empty(); ++pages) {
      if (pages == MAX_PAGES) LUMO_THROW(LDAPException, LDAP_SIZELIMIT_EXCEEDED, "The server's pages do not end");
      // The server looks for the next page while this one is read.
      const int next = send(what, &page.cookie, end);
      readEntries(page.entries.get(), objects);
      page = receive(next, what, end);
    }
    readEntries(page.entries.get(), objects);
  }
  for (const ADObjectPtr& object : objects) completeRanges(*object, end);
  return objects;
}

std::vector<ADObjectPtr> LdapConnection::searchOnce(const DirectorySearch& what, SteadyTime end) {
  const std::optional<int> announced = takeAnnounced(what);
  const Page page = receive(announced ? *announced : send(what, nullptr, end), what, end);
  std::vector<ADObjectPtr> objects;
  readEntries(page.entries.get(), objects);
  return objects;
}

std::chrono::milliseconds LdapConnection::limitUntil(SteadyTime end, const std::string& doing) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
  if (left.count() <= 0) fail(LDAP_TIMEOUT, doing);
  return std::min(m_limits.operation, left);
}

int LdapConnection::send(const DirectorySearch& what, const std::string* cookie, SteadyTime end) {
  const std::string doing = doingOf(what);
  requireUsable(doing);
  std::vector<char*> attributes;
  for (const std::string& name : what.attributes) attributes.push_back(const_cast<char*>(name.c_str()));
  attributes.push_back(nullptr);
  const LdapControl control = cookie != nullptr ? pageControl(m_ld.get(), *cookie) : nullptr;
  LDAPControl* controls[] = {control.get(), nullptr};
  timeval limit = timeOf(limitUntil(end, doing));
  int id = 0;
  const int rc = ldap_search_ext(m_ld.get(), what.base.c_str(), scopeOf(what.scope), what.filter.c_str(),
                                 what.attributes.empty() ? nullptr : attributes.data(), 0, controls, nullptr, &limit,
                                 LDAP_NO_LIMIT, &id);
  if (rc != LDAP_SUCCESS) fail(rc, doing);
  m_incoming.restart();
  return id;
}

LdapConnection::Page LdapConnection::receive(int id, const DirectorySearch& what, SteadyTime end) {
  const std::string doing = doingOf(what);
  Page page{LdapMessage(await(id, limitUntil(end, doing), doing)), {}};

  LDAPControl** found = nullptr;
  int code = LDAP_OTHER;
  const int rc = ldap_parse_result(m_ld.get(), page.entries.get(), &code, nullptr, nullptr, nullptr, &found, 0);
  const LdapControls answered(found);
  if (rc != LDAP_SUCCESS) fail(rc, doing);
  if (code == LDAP_NO_SUCH_OBJECT) return {};
  if (code != LDAP_SUCCESS) fail(code, doing);
  const int cookie = found != nullptr ? readCookie(m_ld.get(), found, page.cookie) : LDAP_SUCCESS;
  if (cookie != LDAP_SUCCESS) fail(cookie, doing);
  return page;
}

void LdapConnection::readEntries(LDAPMessage* result, std::vector<ADObjectPtr>& objects) {
  if (result == nullptr) return;
  LDAP* ld = m_ld.get();
  for (LDAPMessage* entry = ldap_first_entry(ld, result); entry != nullptr; entry = ldap_next_entry(ld, entry)) {
    ADObjectPtr object = readEntry(entry);
    objects.push_back(object ? std::move(object) : readDamagedEntry(entry));
  }
}

// In one pass, the bytes where they lie; null where they are not all what they should be.
ADObjectPtr LdapConnection::readEntry(LDAPMessage* entry) {
  LDAP* ld = m_ld.get();
  BerElement* position = nullptr;
  berval text{};
  if (ldap_get_dn_ber(ld, entry, &position, &text) != LDAP_SUCCESS) return nullptr;
  const LdapAttributes attributes(position);
  ADObjectPtr object(new ADObject(textOf(text)));
  for (;;) {
    berval name{};
    BerVarray found = nullptr;
    const int rc = ldap_get_attribute_ber(ld, entry, position, &name, &found);
    const LdapValueArray values(found);
    if (rc != LDAP_SUCCESS) return nullptr;
    if (name.bv_val == nullptr) return object;
    std::vector<std::string> texts;
    for (const berval* one = found; one != nullptr && one->bv_val != nullptr; ++one) texts.push_back(textOf(*one));
    (*object)[textOf(name)] = ADAttribute(std::move(texts));
  }
}

// Attribute by attribute: each is looked for anew, so that one that cannot be decoded does not hide the others.
ADObjectPtr LdapConnection::readDamagedEntry(LDAPMessage* entry) {
  LDAP* ld = m_ld.get();
  const LdapText dn(ldap_get_dn(ld, entry));
  if (!dn) fail(LDAP_DECODING_ERROR, "Cannot read an object");
  ADObjectPtr object(new ADObject(dn.get()));
  BerElement* position = nullptr;
  LdapText name(ldap_first_attribute(ld, entry, &position));
  const LdapAttributes attributes(position);
  for (; name; name.reset(ldap_next_attribute(ld, entry, position))) {
    (*object)[name.get()] = readValues(entry, name.get());
  }
  return object;
}

ADAttribute LdapConnection::readValues(LDAPMessage* entry, const char* name) {
  LDAP* ld = m_ld.get();
  int rc = LDAP_SUCCESS;
  ldap_set_option(ld, LDAP_OPT_RESULT_CODE, &rc);
  const LdapValues found(ldap_get_values_len(ld, entry, name));
  if (!found && errorOf(ld) != LDAP_SUCCESS) return ADAttribute::unreadable();
  std::vector<std::string> values;
  for (berval** one = found.get(); one != nullptr && *one != nullptr; ++one) {
    values.emplace_back((*one)->bv_val, (*one)->bv_len);
  }
  return ADAttribute(std::move(values));
}

// A server gives the values of a long attribute in parts, each under a name that tells which they are. The plain name
// then holds all of them; part of them alone would look like the whole.
void LdapConnection::completeRanges(ADObject& object, SteadyTime end) {
  std::vector<std::pair<std::string, Range>> parts;
  for (const auto& [name, attribute] : object.attributes()) {
    Range range;
    if (readRange(name, range)) parts.emplace_back(name, std::move(range));
  }
  for (const auto& [name, range] : parts) object[range.attribute] = completed(object, name, end);
}

ADAttribute LdapConnection::completed(const ADObject& object, const std::string& partName, SteadyTime end) {
  Range range;
  readRange(partName, range);
  const std::string plain = range.attribute;
  std::vector<std::string> values = object[partName].values();
  for (int parts = 0; !range.next.empty(); ++parts) {
    if (parts == MAX_RANGES) return ADAttribute::unreadable();
    const std::string wanted = plain + RANGE_OPTION + range.next + "-*";
    const auto found = searchOnce({object.dn(), SearchScope::Base, "(objectClass=*)", {wanted}}, end);
    if (found.empty()) return ADAttribute::unreadable();
    bool more = false;
    for (const auto& [name, part] : found.front()->attributes()) {
      Range next;
      if (!readRange(name, next) || lower(next.attribute) != lower(plain)) continue;
      if (part.isNull()) return ADAttribute::unreadable();
      more = true;
      range.next = next.next;
      values.insert(values.end(), part.values().begin(), part.values().end());
    }
    if (!more) return ADAttribute::unreadable();
  }
  return object[partName].isNull() ? ADAttribute::unreadable() : ADAttribute(std::move(values));
}

}  // namespace lumo
