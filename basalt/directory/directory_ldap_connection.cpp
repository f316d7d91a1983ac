#include "basalt/directory/directory_ldap_connection.h"

#include <openldap.h>
#include <sasl/sasl.h>

#include <mutex>
#include <string_view>

#include "basalt/directory/directory_ldap_handles.h"
#include "basalt/kerberos/kerberos_ccache_scope.h"
#include "base/include/exceptions.h"
#include "base/include/printable.h"

namespace lumo {
namespace {

constexpr char MECHANISM[] = "GSSAPI";
constexpr char MECHANISM_PACKAGE[] = "libsasl2-modules-gssapi-mit";
// Of what a server says, so much goes into a message.
constexpr std::size_t MAX_WORDS = 256;
// Signing alone would do for most servers; sealing keeps what is read from other eyes as well. What is not named here
// would be what a configuration file says: "maxssf=0" stands for no layer at all.
constexpr char SECURITY[] = "noanonymous,noplain,minssf=56,maxssf=2147483647,maxbufsize=65536";
constexpr int LEAST_STRENGTH = 56;

std::string urlOf(const DirectoryServer& server) {
  const bool literal = server.host.find(':') != std::string::npos;
  return "ldap://" + (literal ? "[" + server.host + "]" : server.host) + ":" + std::to_string(server.port);
}

// The library's own beginning (configuration files, the plug-ins of SASL) is for one thread; any question begins it.
void beginOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    int level = 0;
    ldap_get_option(nullptr, LDAP_OPT_DEBUG_LEVEL, &level);
  });
}

// Has the SASL library a plug-in for the mechanism?
bool hasMechanism() {
  char** names = nullptr;  // the library's
  if (ldap_get_option(nullptr, LDAP_OPT_X_SASL_MECHLIST, &names) != LDAP_OPT_SUCCESS) return false;
  for (; names != nullptr && *names != nullptr; ++names) {
    if (std::string_view(*names) == MECHANISM) return true;
  }
  return false;
}

// Nobody is asked anything, whatever the defaults of the host say.
int answerNothing(LDAP*, unsigned, void*, void* questions) {
  for (auto* one = static_cast<sasl_interact_t*>(questions); one->id != SASL_CB_LIST_END; ++one) {
    one->result = "";
    one->len = 0;
  }
  return LDAP_SUCCESS;
}

}  // namespace

void LdapUnbind::operator()(LDAP* ld) const {
  const NoBrokenPipe guard;
  ldap_unbind_ext(ld, nullptr, nullptr);
}

template <class T>
void LdapConnection::setOption(int option, T value) {
  const int rc = ldap_set_option(m_ld.get(), option, value);
  if (rc != LDAP_OPT_SUCCESS) {
    LUMO_THROW(LDAPException, LDAP_PARAM_ERROR, "The LDAP library does not take the option 0x%x", unsigned(option));
  }
}

LdapConnection::LdapConnection(const DirectoryServer& server, bool globalCatalog, LdapLimits limits)
    : m_server(server), m_globalCatalog(globalCatalog), m_limits(limits) {
  Connected connected = connectTcp(server, limits.connect);
  if (!connected.socket) LUMO_THROW(LDAPException, LDAP_CONNECT_ERROR, "%s", connected.failure.c_str());
  // The socket stays one that does not block: half a message from a server that then falls silent must not hold us.
  beginOnce();
  LDAP* ld = nullptr;
  const int rc = ldap_init_fd(connected.socket.get(), LDAP_PROTO_TCP, urlOf(server).c_str(), &ld);
  if (rc != LDAP_SUCCESS) LUMO_THROW(LDAPException, rc, "%s", ldap_err2string(rc));
  connected.socket.release();
  m_ld.reset(ld);

  m_incoming.putOn(ld);
  setOptions();
}

// Each option that a configuration file or the environment may set is set here, so that none of them decides.
void LdapConnection::setOptions() {
  const int version = LDAP_VERSION3;
  const int never = LDAP_DEREF_NEVER;
  const int none = 0;
  const int noBinding = LDAP_OPT_X_SASL_CBINDING_NONE;
  const timeval limit = timeOf(m_limits.operation);
  setOption(LDAP_OPT_PROTOCOL_VERSION, &version);
  setOption(LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
  setOption(LDAP_OPT_RESTART, LDAP_OPT_ON);
  setOption(LDAP_OPT_CONNECT_ASYNC, LDAP_OPT_OFF);
  setOption(LDAP_OPT_KEEPCONN, LDAP_OPT_OFF);
  setOption(LDAP_OPT_DEREF, &never);
  setOption(LDAP_OPT_TIMEOUT, &limit);
  setOption(LDAP_OPT_NETWORK_TIMEOUT, &limit);
  setOption(LDAP_OPT_SIZELIMIT, &none);
  setOption(LDAP_OPT_TIMELIMIT, &none);
  setOption(LDAP_OPT_DEBUG_LEVEL, &none);
  setOption(LDAP_OPT_DEFBASE, "");
  // Those of a socket have effect only where the library connects, which it must not.
  setOption(LDAP_OPT_X_KEEPALIVE_IDLE, &none);
  setOption(LDAP_OPT_X_KEEPALIVE_PROBES, &none);
  setOption(LDAP_OPT_X_KEEPALIVE_INTERVAL, &none);
  setOption<const char*>(LDAP_OPT_SOCKET_BIND_ADDRESSES, nullptr);
  // The name that was looked for is handed to Kerberos as it is. What Kerberos itself makes of it is for the host's
  // krb5.conf to say: with `rdns` on, a wrong reverse record still leads to a name that the domain does not know.
  setOption(LDAP_OPT_X_SASL_NOCANON, LDAP_OPT_ON);
  setOption(LDAP_OPT_X_SASL_CBINDING, &noBinding);
  setOption(LDAP_OPT_X_SASL_SECPROPS, SECURITY);
}

LDAPMessage* LdapConnection::await(int id, std::chrono::milliseconds limit, const std::string& doing) {
  timeval time = timeOf(limit);
  LDAPMessage* answer = nullptr;
  IncomingLimit::beforeReading();
  const int got = ldap_result(m_ld.get(), id, LDAP_MSG_ALL, &time, &answer);
  if (got > 0) return answer;
  const std::string tooMuch = got < 0 ? m_incoming.failure() : std::string();
  ldap_msgfree(answer);
  if (!tooMuch.empty()) {
    m_usable = false;
    LUMO_THROW(LDAPException, LDAP_RESULTS_TOO_LARGE, "%s: %s", doing.c_str(), tooMuch.c_str());
  }
  if (got == 0) ldap_abandon_ext(m_ld.get(), id, nullptr, nullptr);
  fail(got == 0 ? LDAP_TIMEOUT : errorOf(m_ld.get()), doing);
}

void LdapConnection::bind(const std::string& ccacheName) {
  const NoBrokenPipe guard;
  const std::string doing = "Cannot sign in";
  if (!hasMechanism()) {
    LUMO_THROW(LDAPException, LDAP_AUTH_UNKNOWN, "%s: SASL has no %s here; install the package %s", doing.c_str(),
               MECHANISM, MECHANISM_PACKAGE);
  }
  const KerberosCcacheScope identity(ccacheName);
  LdapMessage result;
  const char* mechanism = nullptr;
  for (;;) {
    int id = 0;
    const int rc = ldap_sasl_interactive_bind(m_ld.get(), nullptr, MECHANISM, nullptr, nullptr, LDAP_SASL_QUIET,
                                              answerNothing, nullptr, result.get(), &mechanism, &id);
    if (rc == LDAP_SUCCESS) break;
    if (rc != LDAP_SASL_BIND_IN_PROGRESS) fail(rc, doing);
    m_incoming.restart();
    result.reset(await(id, m_limits.connect, doing));
  }
  requireSealed();
  m_incoming.set(m_ld.get(), MAX_FROM_SERVER);
}

// A server, or somebody between, that skips the layer must not get past.
void LdapConnection::requireSealed() {
  ber_len_t strength = 0;
  if (ldap_get_option(m_ld.get(), LDAP_OPT_X_SASL_SSF, &strength) != LDAP_OPT_SUCCESS || strength < LEAST_STRENGTH) {
    m_usable = false;
    LUMO_THROW(LDAPException, LDAP_CONFIDENTIALITY_REQUIRED, "Cannot sign in: the server does not seal the connection");
  }
}

// The diagnostic message of the server stands behind the library's own words.
void LdapConnection::fail(int rc, const std::string& doing) {
  const LdapText detail = diagnosticOf(m_ld.get());
  const bool refused = LDAP_NAME_ERROR(rc) || LDAP_SECURITY_ERROR(rc) || LDAP_ATTR_ERROR(rc) || LDAP_UPDATE_ERROR(rc);
  if (!refused) m_usable = false;
  std::string words = rc == LDAP_TIMEOUT ? "no answer in time" : ldap_err2string(rc);
  if (rc != LDAP_TIMEOUT && detail && *detail.get() != '\0') words += " (" + printable(detail.get(), MAX_WORDS) + ")";
  LUMO_THROW(LDAPException, rc, "%s: %s", doing.c_str(), words.c_str());
}

void LdapConnection::requireUsable(const std::string& doing) const {
  if (!m_usable) LUMO_THROW(LDAPException, LDAP_SERVER_DOWN, "%s: the connection was lost before", doing.c_str());
}

}  // namespace lumo
