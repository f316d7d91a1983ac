#include "basalt/directory/canonical_spn.h"

#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <charconv>
#include <memory>
#include <optional>

#include "base/include/exceptions.h"
#include "base/include/logger.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"

namespace lumo {
namespace {

constexpr char SERVICE_PRINCIPAL_NAME[] = "servicePrincipalName";
constexpr char LOGGER_NAME[] = "base.directory";
constexpr unsigned MAX_PORT = 65535;

bool plainText(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) > ' ' && c != 0x7f; });
}

bool validPort(const std::string& port) {
  unsigned value = 0;
  const char* end = port.data() + port.size();
  const auto [stop, error] = std::from_chars(port.data(), end, value);
  return error == std::errc() && stop == end && value >= 1 && value <= MAX_PORT;
}

bool validHost(const std::string& host) {
  if (host.empty()) return false;
  if (host.front() != '[') return host.find_first_of(":[]") == std::string::npos;
  in6_addr address{};
  return host.back() == ']' && inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &address) == 1;
}

// Without case, as the directory compares these names.
bool sameName(const std::string& a, const std::string& b) { return lower(a) == lower(b); }

// The account's own spelling of the name, where the object shows it.
std::optional<std::string> ownSpelling(const ADObject& account, const std::string& name) {
  for (const std::string& value : account[SERVICE_PRINCIPAL_NAME].values()) {
    if (sameName(value, name)) return value;
  }
  return std::nullopt;
}

// A binding that goes by the deleter it came with; without one it belongs to somebody else.
using BorrowedBind = std::unique_ptr<ADBind, void (*)(ADBind*)>;

BorrowedBind openDomain(const std::string& domain, ADBind& binding, CanonicalSpn::Lookup lookup) {
  const auto keep = [](ADBind*) {};
  if (sameName(domain, binding.domain())) return {&binding, keep};
  if (lookup == nullptr) return {nullptr, keep};
  void (*deleter)(ADBind*) = nullptr;
  ADBind* further = lookup(domain, binding, &deleter);
  return {further, deleter != nullptr ? deleter : keep};
}

}  // namespace

CanonicalSpn::CanonicalSpn(const std::string& spn) {
  if (!plainText(spn)) return;
  const std::size_t slash = spn.find('/');
  if (slash == std::string::npos || slash == 0) return;
  m_service = spn.substr(0, slash);
  std::string rest = spn.substr(slash + 1);
  if (m_service.find('@') != std::string::npos || rest.find('/') != std::string::npos) return;

  if (const std::size_t at = rest.rfind('@'); at != std::string::npos) {
    m_realm = rest.substr(at + 1);
    rest.resize(at);
    if (m_realm.empty() || rest.find('@') != std::string::npos) return;
  }
  const std::size_t bracket = rest.rfind(']');
  const std::size_t colon = rest.find(':', bracket == std::string::npos ? 0 : bracket);
  m_host = rest.substr(0, colon);
  if (colon != std::string::npos) {
    m_port = rest.substr(colon + 1);
    if (!validPort(m_port)) return;
  }
  m_valid = validHost(m_host);
}

std::vector<std::string> CanonicalSpn::candidates(const std::string& domain) const {
  std::vector<std::string> names;
  const auto add = [&](const std::string& host) {
    if (!m_port.empty()) names.push_back(m_service + "/" + host + ":" + m_port);
    names.push_back(m_service + "/" + host);
  };
  add(m_host);
  if (!domain.empty() && m_host.find_first_of(".[") == std::string::npos) add(m_host + "." + domain);
  return names;
}

bool CanonicalSpn::canonicalize(std::string& out, ADBind& binding, ADBind& catalogue, Lookup lookup) const {
  out.clear();
  if (!m_valid) return false;
  for (const std::string& name : candidates(binding.domain())) {
    DirectorySearch search;
    search.filter = std::string("(") + SERVICE_PRINCIPAL_NAME + "=" + escapeFilterValue(name) + ")";
    search.attributes = {SERVICE_PRINCIPAL_NAME};
    search.paged = false;
    const auto accounts = catalogue.search(search);
    if (accounts.empty()) continue;
    if (accounts.size() > 1) {
      LUMO_LOG(getLogger(LOGGER_NAME, false), lumo::level::Warn,
               "The service principal name %s is held by %zu accounts, not by one", printable(name).c_str(),
               accounts.size());
      return false;
    }
    const ADObject& account = *accounts.front();
    const std::string domain = dnsDomainOf(account.dn());
    if (domain.empty()) return false;
    auto spelling = ownSpelling(account, name);
    if (!spelling) {
      // The catalogue does not show the attribute: the account's own domain does.
      const BorrowedBind further = openDomain(domain, binding, lookup);
      const ADObjectPtr whole = further ? further->fetch(account.dn(), {SERVICE_PRINCIPAL_NAME}) : nullptr;
      if (whole) spelling = ownSpelling(*whole, name);
    }
    if (!spelling) return false;
    out = *spelling + "@" + (m_realm.empty() ? upper(domain) : m_realm);
    return true;
  }
  return false;
}

std::string canonicalServiceName(const std::string& spn, ADBind& domain, ADBind& catalogue,
                                 CanonicalSpn::Lookup lookup) {
  const CanonicalSpn name(spn);
  std::string canonical;
  try {
    name.canonicalize(canonical, domain, catalogue, lookup);
    return canonical;
  } catch (const LUMOException& failure) {
    if (&domain == &catalogue) throw;
    LUMO_LOG(getLogger(LOGGER_NAME, false), lumo::level::Debug,
             "The catalogue cannot be asked for the service name %s, asking the domain '%s': %s",
             printable(spn).c_str(), printable(domain.domain()).c_str(), failure.what());
  }
  name.canonicalize(canonical, domain, domain, lookup);
  return canonical;
}

}  // namespace lumo
