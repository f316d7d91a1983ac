// Where the KDCs of a realm are, by their SRV records.
#include <random>

#include "basalt/directory/directory_srv.h"
#include "basalt/kerberos/kerberos_credentials.h"
#include "basalt/settings/settings_store.h"
#include "base/include/logger.h"
#include "base/include/string_helpers.h"

namespace {

std::vector<KdcAddress> inOrder(std::vector<lumo::SrvRecord> records) {
  std::random_device lots;
  const auto upTo = [&](std::uint32_t limit) { return std::uniform_int_distribution<std::uint32_t>(0, limit)(lots); };
  std::vector<KdcAddress> addresses;
  for (const auto& record : lumo::orderSrvRecords(std::move(records), upTo)) {
    addresses.push_back({record.target, record.port});
  }
  return addresses;
}

std::vector<KdcAddress> kdcsOf(const std::string& realm) {
  for (const char* service : {"_kerberos._tcp.dc._msdcs.", "_kerberos._tcp."}) {
    lumo::SrvAnswer answer = lumo::lookUpSrv(service + lower(realm));
    if (answer.status == lumo::SrvAnswer::Status::Found) return inOrder(std::move(answer.records));
    // The next name would meet the same silence, and the caller waits.
    if (answer.status == lumo::SrvAnswer::Status::Silent) return {};
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
      LUMO_LOG(getLogger("base.kerberos.wrap", false), lumo::level::Debug,
               "No KDC of realm '%s' is known to the name service", realm.c_str());
    }
  } catch (const std::exception& failure) {
    LUMO_LOG(getLogger("base.kerberos.wrap", false), lumo::level::Debug, "Cannot look for a KDC: %s", failure.what());
  }
  return GSS_S_COMPLETE;
}

OM_uint32 gss_init_gic_callback(OM_uint32* minor, void*, void*, void* callback, void*) {
  *minor = 0;
  return callback == nullptr ? GSS_S_COMPLETE : GSS_S_UNAVAILABLE;
}
