// --test: one GET of the platform's URL through the proxy, with the credential that would be used.
#include "cli/cli_ferrogate.h"

#include <arpa/inet.h>

#include "basalt/settings/fips.h"
#include "base/include/printable.h"
#include "base/include/properties.h"
#include "base/include/string_helpers.h"
#include "cli/cli_common.h"
#include "cli/cli_ferrogate_trace.h"
#include "cloud/http/cloud_object_certs.h"
#include "cloud/include/curl_object.h"

namespace {

// What is always decided by the configuration, and the server where none was given.
int readSettings(CommandOptions& record) {
  const lumo::Properties& settings = lumo::Props(false, false);
  if (record.server.empty()) record.server = settings.getProperty(lumo::PN::CLOUD_PROXY_SERVER);
  if (record.server.empty()) {
    FERRO_REPORT(lumo::level::Error, "HTTP proxy server is required for testing HTTP proxy credential.");
    return result::NoProxyServer;
  }
  record.authRequired = settings.getProperty(lumo::PN::CLOUD_PROXY_AUTH_REQUIRED, "false");
  record.authType = lower(settings.getProperty(lumo::PN::CLOUD_PROXY_AUTH_TYPE, "AnyAuth"));
  return result::Success;
}

int judgeFips(const CommandOptions& record) {
  if (!lumo::FIPSHelper::bars(record.authType)) return result::Success;
  if (!fipsModeConsistent()) FERRO_REPORT(lumo::level::Warn, FIPS_INCONSISTENT);
  if (!lumo::FIPSHelper::isStarted()) return result::Success;
  FERRO_REPORT(lumo::level::Error, VS("Auth type '%s' is configured, which is not allowed when FIPS mode is enabled.\n",
                                      record.authType.c_str()));
  return result::AuthTypeInvalid;
}

bool usesKerberos(const std::string& authType) { return authType == "negotiate" || authType == "anyauth"; }

void warnOfNumericHost(const CommandOptions& record) {
  const auto colon = record.server.find(':');
  in_addr address{};
  if (colon == std::string::npos || inet_aton(record.server.substr(0, colon).c_str(), &address) == 0) return;
  if (!usesKerberos(record.authType)) return;
  FERRO_REPORT(lumo::level::Warn,
               "FQDN hostname for proxy server is preferred when authentication type is 'negotiate' or 'anyauth'.");
}

// User and password from the command line, else the credential file, else the terminal.
int settleCredential(CommandOptions& record) {
  CommandOptions stored;
  if (record.username.empty()) {
    if (!record.password.empty()) {
      record.username = DEFAULT_USER;
    } else if (getCredential(stored, CredentialUser | CredentialPassword) != result::Success) {
      return result::GetCredentialFailed;
    } else {
      record.username = stored.username;
    }
  }
  if (record.username != MACHINE_MARKER && record.password.empty()) {
    if (!stored.password.empty()) {
      record.password = stored.password;
    } else if (!promptPassword(record)) {
      return result::GetCredentialFailed;
    }
  }
  warnOfNumericHost(record);
  return result::Success;
}

bool authenticates(const CommandOptions& record) { return record.authRequired == "true"; }

void announce(const CommandOptions& record) {
  using lumo::printable;
  std::string line = "Connection Test to OPX " + printable(maskUrlPassword(record.opxUrl)) + " via proxy '" +
                     printable(maskUrlPassword(record.server));
  if (!authenticates(record)) {
    line += "' without authentication";
  } else {
    line += "' with '" + printable(record.authType) + "' authtype and ";
    line += record.username == MACHINE_MARKER ? "Machine Credential" : "username:'" + printable(record.username) + "'";
  }
  FERRO_NOTE(true, line + ".");
}

void setUpTrace(CurlObject& connection) {
  connection.setOpt(CURLOPT_VERBOSE, 1);
  connection.setOpt(CURLOPT_DEBUGDATA, static_cast<void*>(&connection));
  connection.setOpt(CURLOPT_DEBUGFUNCTION, &CurlObject::debugCallback);
}

void setUpTrust(CurlObject& connection, const CommandOptions& record) {
  Trust trust;
  trust.verifies = verifies(lumo::PN::FERROD_CLOUD_SKIP_CERT_VERIFICATION);
  if (trust.verifies) trust.bundle = platformBundle();
  setTrust(connection, trust);
  if (!trust.verifies) {
    FERRO_NOTE(record.verbose, "Skip cert verfication.");
  } else if (!trust.bundle.empty()) {
    FERRO_NOTE(record.verbose, "Using cert store: " + lumo::printable(trust.bundle));
  } else if (startsWith(record.opxUrl, "https://", true, false)) {
    FERRO_REPORT(lumo::level::Warn, "No valid cert store found, OPX connection might fail!");
  }
}

int exchange(CurlObject& connection, const std::string& url) {
  try {
    connection.perform(url, std::string(), 0);
    return result::Success;
  } catch (...) {
    // Whatever stood in the way, the test has failed; the trace tells what was said.
    return result::ConnectionTestFailed;
  }
}

int testConnection(const CommandOptions& record) {
  if (authenticates(record)) restrictSaslPlugins();
  CurlObject connection;
  connection.setProxy(record.server, authenticates(record) ? record.authType : std::string(), record.username,
                      record.password);
  if (record.verbose) setUpTrace(connection);
  setUpTrust(connection, record);
  const int code = exchange(connection, record.opxUrl);
  if (record.verbose) {
    FERRO_NOTE(true, "\nCurl Debug Info...\n" + maskedTrace(connection.debugLines, {record.opxUrl, record.server}));
  }
  return code;
}

}  // namespace

int handleTestCommand(CommandOptions& record) {
  if (record.opxUrl.empty()) {
    FERRO_REPORT(lumo::level::Error, "Must provide --opx option.\n");
    return result::Usage;
  }
  if (const int code = readSettings(record); code != result::Success) return code;
  if (const int code = judgeFips(record); code != result::Success) return code;
  if (authenticates(record)) {
    if (const int code = settleCredential(record); code != result::Success) return code;
  }
  announce(record);
  const int code = testConnection(record);
  if (code == result::Success) {
    FERRO_NOTE(false, "Connection to OPX is successful.\n");
    printOut("Connection to OPX is successful.\n\n");
  }
  return code;
}
