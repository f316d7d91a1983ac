#include "cloud/http/curl_gsssetup.h"

#include <future>
#include <memory>
#include <type_traits>
#include <utility>

#include "basalt/ad_agent.h"
#include "basalt/directory/canonical_spn.h"
#include "basalt/settings/settings_store.h"
#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"

namespace {

// A year, in seconds: the KDC shortens it to what it allows.
constexpr int TICKET_LIFETIME = 31536000;

// Of foreign words in one record, in bytes.
constexpr std::size_t LONGEST_WORDS = 512;

boost::shared_ptr<lumo::Logger> logger() { return getLogger("cloud.proxy.gss", false); }

struct ReleasePrincipal {
  krb5_context context;
  void operator()(krb5_principal principal) const { krb5_free_principal(context, principal); }
};
using Principal = std::unique_ptr<std::remove_pointer_t<krb5_principal>, ReleasePrincipal>;

Principal parsePrincipal(krb5_context context, const std::string& user) {
  krb5_principal parsed = nullptr;
  const krb5_error_code rc = krb5_parse_name(context, user.c_str(), &parsed);
  if (rc != 0) {
    const std::string text = lumo::exceptionMessage("%s:%s", "krb5_parse_name", error_message(rc));
    throw KerberosException(rc, text.c_str(), __FILE__, __LINE__);
  }
  return Principal(parsed, ReleasePrincipal{context});
}

// Credentials whose contents go with the object.
class OwnedCreds {
 public:
  explicit OwnedCreds(krb5_context context) : m_context(context) {}
  ~OwnedCreds() { krb5_free_cred_contents(m_context, &creds); }
  OwnedCreds(const OwnedCreds&) = delete;
  OwnedCreds& operator=(const OwnedCreds&) = delete;

  krb5_creds creds{};

 private:
  krb5_context m_context;
};

void releaseBinding(ADBind* binding) {
  if (binding != nullptr) static_cast<ADBinding*>(binding)->release();
}

struct ReleaseBinding {
  void operator()(ADBinding* binding) const { binding->release(); }
};
using OwnedBinding = std::unique_ptr<ADBinding, ReleaseBinding>;

// Both at the same time: a server takes longer over a sign-in than we do. One after the other where no thread can be
// had. When neither works, the failure of the first is thrown. Returns false when no server of the catalogue is there.
bool connectBoth(ADBinding& domain, ADBinding& catalogue) {
  const auto open = [](ADBinding* binding) { binding->connect("", "", 0); };
  std::future<void> beside = std::async(open, &catalogue);  // its destructor waits
  open(&domain);
  const auto tell = [](const LUMOException& failure) {
    LUMO_LOG(logger(), lumo::level::Debug,
             "The controller is asked for service names, since the catalogue is not there: %s", failure.what());
    return false;
  };
  try {
    beside.get();
    return true;
  } catch (const lumo::IOException& failure) {
    return tell(failure);
  } catch (const lumo::DNSUnavailableException& failure) {
    return tell(failure);
  }
}

void logNoCredential(const std::exception& failure) {
  LUMO_LOG(logger(), lumo::level::Error,
           "Failed to get/store kerberos credential to access Http Proxy Server (Error:%s). Use of Http Proxy Server "
           "might fail!",
           lumo::printable(failure.what(), LONGEST_WORDS).c_str());
}

// Empty when the machine has no usable cache: the request then fails at the proxy, not here.
std::string machineCacheName() {
  try {
    return ADHelper::GetMachineCredCache();
  } catch (const LUMOException& failure) {
    logNoCredential(failure);
    return std::string();
  }
}

}  // namespace

int proxyGssSetup(void* first, const char* name, void* third, void* fourth, ProxyGssCallbacks* block) {
  if (block == nullptr) return 0;
  const int result = serverGssSetup(first, name, third, fourth, block);
  if (name != nullptr && block->helper != nullptr) block->helper->setAllowableEtypes(name);
  return result;
}

int serverGssSetup(void* first, const char*, void* third, void*, ProxyGssCallbacks* block) {
  if (block == nullptr) return 0;
  OM_uint32 minor = 0;
  gss_init_server_locator(&minor, first, third, block->kdcLocator, block);
  return static_cast<int>(
      gss_init_gic_callback(&minor, first, third, block->initialCredentials, block->initialCredentialsData));
}

CurlProxyNegotiateHelper::CurlProxyNegotiateHelper() {
  if (ADAgent* agent = ADAgent::GetADAgent(false, true)) {
    krbContext = agent->kerberosContext().clone();
  } else {
    krbContext = KerberosContext().clone();
  }
}

CurlProxyNegotiateHelper::~CurlProxyNegotiateHelper() {
  clearGSSCredential(true);
  if (krbContext != nullptr) krb5_free_context(krbContext);
  releaseSpnBindings();
}

void CurlProxyNegotiateHelper::setCredentials(const std::string& newUser, const lumo::Shredder2& newPassword) {
  clearGSSCredential(true);
  user = newUser;
  password = newPassword;
}

void CurlProxyNegotiateHelper::clearGSSCredential(bool clearUserCache) {
  if (gssCredential.get() != GSS_C_NO_CREDENTIAL) {
    LUMO_LOG(logger(), lumo::level::Debug, "Release GSS credential handler.\n");
    gssCredential.releaseCred();
  }
  if (clearUserCache) clearUserKrb5CCache();
}

void CurlProxyNegotiateHelper::clearUserKrb5CCache() {
  if (userCCache != nullptr) {
    LUMO_LOG(logger(), lumo::level::Debug, "Clear Krb5CCache '%s'.\n", ccacheName.c_str());
    delete userCCache;
    userCCache = nullptr;
  }
  ccacheName.clear();
}

std::string CurlProxyNegotiateHelper::createUserCCache() {
  std::string name;
  clearUserKrb5CCache();
  try {
    name = requestTicket();
  } catch (const std::exception& failure) {
    logNoCredential(failure);
  }
  if (name.empty() && userCCache != nullptr) {
    delete userCCache;
    userCCache = nullptr;
  }
  LUMO_LOG(logger(), lumo::level::Debug, "Created User CCache '%s'\n", name.c_str());
  return name;
}

std::string CurlProxyNegotiateHelper::requestTicket() {
  const Principal principal = parsePrincipal(krbContext, user);
  const std::string realm = ADUser::getRealmName(user, nullptr);
  OwnedCreds ticket(krbContext);
  std::string errorText;
  const krb5_error_code rc = getCredentials(krbContext, principal.get(), lumo::Shredder(password), &ticket.creds,
                                            &errorText, nullptr, nullptr, realm, TICKET_LIFETIME, nullptr);
  if (rc != 0) {
    LUMO_LOG(logger(), lumo::level::Error,
             "Failed to get kerberos credential to access Http Proxy Server for user=%s, rc=%d. Use of Http Proxy "
             "Server might fail!",
             lumo::printable(user, LONGEST_WORDS).c_str(), static_cast<int>(rc));
    LUMO_LOG(logger(), lumo::level::Warn, "The KDC's answer for user=%s: %s",
             lumo::printable(user, LONGEST_WORDS).c_str(), lumo::printable(errorText, LONGEST_WORDS).c_str());
    return std::string();
  }
  userCCache = new MemoryCCache(krbContext, principal.get());
  userCCache->storeCred(ticket.creds);
  return userCCache->name;
}

bool CurlProxyNegotiateHelper::initKrb5CCache() {
  if (!ccacheName.empty()) {
    LUMO_LOG(logger(), lumo::level::Debug, "KRB5 CCache exists as '%s'.\n", ccacheName.c_str());
    return true;
  }
  ccacheName = user == MACHINE_MARKER ? machineCacheName() : createUserCCache();
  return !ccacheName.empty();
}

void CurlProxyNegotiateHelper::initGSSCredential() {
  initKrb5CCache();
  LUMO_LOG(logger(), lumo::level::Debug, "initGSSCredential with KRB5 CCache '%s'.", ccacheName.c_str());
  if (gssCredential.acquireCred(ccacheName.c_str()) == GSS_C_NO_CREDENTIAL) {
    LUMO_LOG(logger(), lumo::level::Debug, "Failed to get gss credential.");
  }
  callbacks = ProxyGssCallbacks();
  if (ADAgent::GetADAgent(false, true) != nullptr) {
    callbacks.kdcLocator = reinterpret_cast<void*>(&krb5_dc_locator_callback);
  }
}

bool CurlProxyNegotiateHelper::handleKrb5CCache(const std::vector<std::string>& headerLines) {
  if (user.empty()) {
    LUMO_LOG(logger(), lumo::level::Debug,
             "Username not available/set. Username must be provided to create krb5 ccache!");
    return false;
  }
  LUMO_LOG(logger(), lumo::level::Debug, "HEADER size = %d\n", static_cast<int>(headerLines.size()));
  bool saw407 = false;
  for (const std::string& raw : headerLines) {
    const std::string line = trimWhiteSpace(raw);
    LUMO_LOG(logger(), lumo::level::Debug, "HEADER %s\n", line.c_str());
    if (startsWith(line, "HTTP/", false, false)) {
      if (!contains(line, "407 Proxy Authentication Required")) return false;
      saw407 = true;
    } else if (saw407 && startsWith(line, "Proxy-Authenticate:", false, false) && contains(line, " Negotiate")) {
      LUMO_LOG(logger(), lumo::level::Debug,
               "'negotiate' proxy authentication failed, Refresh krb5 credential cache file.\n");
      return initKrb5CCache();
    }
  }
  return false;
}

void CurlProxyNegotiateHelper::setAllowableEtypes(const std::string& name) {
  const std::string::size_type at = name.rfind('@');
  const std::string realm = at == std::string::npos ? std::string() : name.substr(at + 1);
  LUMO_LOG(logger(), lumo::level::Trace, "CurlProxyNegotiateHelper::setAllowableEtypes for realm '%s'", realm.c_str());
  const unsigned capacity = krb5_enctypes_length() + 1;
  std::vector<int> list(capacity);
  const unsigned count = getKrb5EncList(list.data(), capacity, realm);
  gssCredential.setAllowableEtypes(count, list.data());
}

void CurlProxyNegotiateHelper::releaseSpnBindings() {
  if (ownsSpnBindings) {
    if (spnGcBinding != spnBinding) releaseBinding(spnGcBinding);
    releaseBinding(spnBinding);
  }
  spnBinding = nullptr;
  spnGcBinding = nullptr;
  spnLookup = nullptr;
  ownsSpnBindings = false;
}

void CurlProxyNegotiateHelper::setSpnLooker() {
  releaseSpnBindings();
  if (ADAgent* agent = ADAgent::GetADAgent(false, true)) {
    spnBinding = agent->domainBinding();
    spnGcBinding = agent->catalogueBinding();
    spnLookup = &GetAgentDomainBind;
    return;
  }
  try {
    const std::string domain = lumo::loadSetting(SETTING_DOMAIN_NAME, false, false);
    const std::string machineCache = ADHelper::GetMachineCredCache();
    ownsSpnBindings = true;
    OwnedBinding binding(new ADBinding(domain, machineCache, false, "", "", nullptr));
    OwnedBinding catalogue(new ADBinding(domain, machineCache, true, "", "", nullptr));
    spnLookup = &OpenDomainBind;
    const bool hasCatalogue = connectBoth(*binding, *catalogue);
    spnBinding = binding.release();
    spnGcBinding = hasCatalogue ? catalogue.release() : spnBinding;
  } catch (const LUMOException& failure) {
    LUMO_LOG(logger(), lumo::level::Debug, "Failed to set bindng and lookup function to canonicalize SPN: %s",
             failure.what());
    throw;
  }
}

std::string CurlProxyNegotiateHelper::canonicalizeSpn(const std::string& spn) {
  // The agent's bindings are asked for anew: they go with the agent, and this object may be kept for longer.
  if (!ownsSpnBindings || spnBinding == nullptr || spnGcBinding == nullptr || spnLookup == nullptr) setSpnLooker();
  if (!ownsSpnBindings) {
    ADAgent* const agent = ADAgent::GetADAgent(false, true);
    return agent != nullptr ? agent->canonicalServiceName(spn) : std::string();
  }
  try {
    return lumo::canonicalServiceName(spn, *spnBinding, *spnGcBinding, spnLookup);
  } catch (const LUMOException& failure) {
    LUMO_LOG(logger(), lumo::level::Warn, "The service name %s cannot be looked up: %s", lumo::printable(spn).c_str(),
             failure.what());
    // A server closes a connection that was idle for long; the next look-up begins with new ones.
    releaseSpnBindings();
    return {};
  }
}
