// Where the KDCs of a realm are, by their SRV records.
#include <arpa/nameser.h>
#include <netinet/in.h>
#include <resolv.h>

#include <algorithm>
#include <cstring>

#include "basalt/kerberos_credentials.h"
#include "basalt/settings_store.h"
#include "base/include/logger.h"
#include "base/include/string_helpers.h"

namespace {

// A resolver of this call's own, impatient: the library's default would wait half a minute for silent servers.
class Resolver {
 public:
  Resolver() : m_ready(res_ninit(&m_state) == 0) {
    m_state.retrans = 2;
    m_state.retry = 2;
  }
  ~Resolver() {
    if (m_ready) res_nclose(&m_state);
  }
  Resolver(const Resolver&) = delete;
  Resolver& operator=(const Resolver&) = delete;

  // Length of the answer, or -1.
  int askForServices(const std::string& name, unsigned char* answer, int size) {
    return m_ready ? res_nquery(&m_state, name.c_str(), ns_c_in, ns_t_srv, answer, size) : -1;
  }

 private:
  struct __res_state m_state {};
  bool m_ready;
};

struct Service {
  unsigned priority;
  unsigned weight;
  KdcAddress address;
};

// RFC 2782: priority, weight, port, target.
bool readService(ns_msg& message, int index, Service& service) {
  ns_rr record;
  if (ns_parserr(&message, ns_s_an, index, &record) != 0 || ns_rr_type(record) != ns_t_srv || ns_rr_rdlen(record) < 7) {
    return false;
  }
  const unsigned char* data = ns_rr_rdata(record);
  char host[NS_MAXDNAME];
  if (dn_expand(ns_msg_base(message), ns_msg_end(message), data + 6, host, sizeof host) < 0 || host[0] == '\0') {
    return false;
  }
  service.priority = ns_get16(data);
  service.weight = ns_get16(data + 2);
  service.address = {host, static_cast<unsigned short>(ns_get16(data + 4))};
  return true;
}

std::vector<KdcAddress> servicesOf(const std::string& name) {
  Resolver resolver;
  std::vector<unsigned char> answer(NS_MAXMSG);
  const int length = resolver.askForServices(name, answer.data(), static_cast<int>(answer.size()));
  ns_msg message;
  if (length <= 0 || ns_initparse(answer.data(), std::min(length, NS_MAXMSG), &message) != 0) return {};
  std::vector<Service> services;
  for (int i = 0; i < ns_msg_count(message, ns_s_an); ++i) {
    Service service;
    if (readService(message, i, service)) services.push_back(service);
  }
  std::stable_sort(services.begin(), services.end(), [](const Service& a, const Service& b) {
    return a.priority != b.priority ? a.priority < b.priority : a.weight > b.weight;
  });
  std::vector<KdcAddress> addresses;
  for (auto& service : services) addresses.push_back(std::move(service.address));
  return addresses;
}

std::vector<KdcAddress> kdcsOf(const std::string& realm) {
  for (const char* service : {"_kerberos._tcp.dc._msdcs.", "_kerberos._tcp."}) {
    std::vector<KdcAddress> found = servicesOf(service + lower(realm));
    if (!found.empty()) return found;
  }
  return {};
}

}  // namespace

extern "C" int krb5_dc_locator_callback(const char* realm, void* data) {
  try {
    if (realm != nullptr && realm[0] != '\0') {
      std::vector<KdcAddress> found = kdcsOf(realm);
      const bool any = !found.empty();
      if (data != nullptr) static_cast<std::vector<KdcAddress>*>(data)->swap(found);
      if (any) return 0;
    }
  } catch (...) {
    // No exception may cross the caller's C frames.
  }
  return static_cast<int>(KRB5_REALM_CANT_RESOLVE);
}

OM_uint32 gss_init_server_locator(OM_uint32* minor, void*, void*, void* locator, void*) {
  *minor = 0;
  if (locator == nullptr) return GSS_S_COMPLETE;
  try {
    const auto find = reinterpret_cast<decltype(&krb5_dc_locator_callback)>(locator);
    const std::string realm = upper(lumo::loadSetting(SETTING_DOMAIN_NAME, false, false));
    std::vector<KdcAddress> found;
    if (find(realm.c_str(), &found) != 0) {
      LUMO_LOG(getLogger("base.kerberos.wrap", false), 1, "No KDC of realm %s is known to the name service",
               realm.c_str());
    }
  } catch (const std::exception& failure) {
    LUMO_LOG(getLogger("base.kerberos.wrap", false), 1, "Cannot look for a KDC: %s", failure.what());
  }
  return GSS_S_COMPLETE;
}

OM_uint32 gss_init_gic_callback(OM_uint32* minor, void*, void*, void* callback, void*) {
  *minor = 0;
  return callback == nullptr ? GSS_S_COMPLETE : GSS_S_UNAVAILABLE;
}
