// Names of the parameters of the configuration file, and other texts that name things outside the process.
#pragma once

namespace lumo::PN {

inline constexpr char CLOUD_PROXY_SERVER[] = "ferrod.cloud.proxy.server";
inline constexpr char CLOUD_PROXY_AUTH_REQUIRED[] = "ferrod.cloud.proxy.auth.required";
inline constexpr char CLOUD_PROXY_AUTH_TYPE[] = "ferrod.cloud.proxy.auth.type";
inline constexpr char CLOUD_DIRECT_CONNECTION[] = "ferrod.cloud.direct.connection";
inline constexpr char CLOUD_REST_VERSION[] = "ferrod.cloud.rest.version";
inline constexpr char CLOUD_IWA_URL_OVERRIDE[] = "ferrod.cloud.iwa.url";
inline constexpr char CLOUD_CONNECTOR_OVERRIDE[] = "ferrod.cloud.connector";
inline constexpr char CLOUD_CONNECTOR_REFRESH_INTERVAL[] = "ferrod.cloud.connector.refresh.interval";
inline constexpr char CLOUD_CONNECTOR_RECOVER_INTERVAL[] = "ferrod.cloud.connector.recover.interval";
inline constexpr char FERROD_CLOUD_AUTH_CONN_MAX[] = "ferrod.cloud.auth.conn.max";
inline constexpr char FERROD_CLOUD_AUTH_TOKEN_MAX[] = "ferrod.cloud.auth.token.max";
inline constexpr char LUMOD_MAX_CLIENT_THREADS[] = "lumod.max.client.threads";
inline constexpr char LUMOD_CLIENT_IDLE_TIMEOUT[] = "lumod.client.idle.timeout";
inline constexpr char LEGACYZONE_CLOUDURL[] = "ferrod.legacyzone.mfa.cloudurl";
inline constexpr char ZONE_HIERARCHICAL[] = "ferrod.zone.hierarchical";
inline constexpr char ZONE_CLOUDURL[] = "ferrod.zone.cloudurl";
inline constexpr char FERROD_CLOUD_SKIP_CERT_VERIFICATION[] = "ferrod.cloud.skip.cert.verification";
inline constexpr char FERROD_CLOUD_CERT_STORE[] = "ferrod.cloud.cert.store";
inline constexpr char FERROD_IWA_SKIP_CERT_VERIFICATION[] = "ferrod.iwa.skip.cert.verification";
inline constexpr char FERROSEC_CERT_DIR[] = "ferrosec.cert.dir";
inline constexpr char FERROD_CLOUD_MFA_PAYLOADS[] = "ferrod.cloud.mfa.payloads";
inline constexpr char FERROD_CLOUD_LOG_PRIVEVENT[] = "ferrod.cloud.log.privevent";
inline constexpr char LUMOD_SOCKET[] = "lumod.socket";
inline constexpr char ROOT_LOGGER_NAME[] = "log";
inline constexpr char LOG_FILE[] = "logging.file";
inline constexpr char KRB5_CONFFILE_NAME[] = "krb5.conf.file";
inline constexpr char KRB5_ALLOW_WEAK_CRYPTO[] = "krb5.allow.weak.crypto";
inline constexpr char CLI_HOOK_PREFIX[] = "cli.hook.";
inline constexpr char CLI_HOOK_TIMEOUT[] = "cli.hook.timeout";
inline constexpr char FIPS_MODE_ENABLE[] = "fips.mode.enable";

}  // namespace lumo::PN

// Values, not keys.
namespace lumo::PN {

inline constexpr char DEFAULT_CERT_DIR[] = "/var/morvand/certs";

}  // namespace lumo::PN

// A user name that means the machine account: the well-known SID of the local system.
inline constexpr char MACHINE_MARKER[] = "S-1-5-18";

namespace lumo::path {

inline constexpr char CONFIGURATION[] = "/etc/morvand/morvand.conf";
inline constexpr char STATE_FOLDER[] = "/var/morvand/";
inline constexpr char AGENT_SOCKET[] = "/var/morvand/daemon";
inline constexpr char AGENT_LOCK[] = "/var/run/ferrod.lock";
inline constexpr char SETTINGS_STORE[] = "/var/morvand/kset/";
inline constexpr char MACHINE_KEYTAB[] = "/etc/krb5.keytab";
inline constexpr char MACHINE_CCACHE[] = "/var/morvand/machine.ccache";

}  // namespace lumo::path
