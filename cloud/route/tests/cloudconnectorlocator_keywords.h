// The keywords of a connector as the directory has them, and the settings that they become: what tests hold the
// locator's own table against.
#pragma once

#include <utility>

#include "cloud/route/cloudconnectorlocator_record.h"

inline constexpr std::pair<const char*, const char*> KEYWORD_ROWS[] = {
    {"morvane.core.cloudurl", LUMO_CLOUD_URL},
    {"morvane.core.webproxy.port", LUMO_CLOUD_CONNECTOR_PORT},
    {"morvane.mobile.proxyScp", LUMO_CLOUD_PROXY_SCP},
    {"morvane.mobile.proxySite", LUMO_CLOUD_CONNECTOR_SITE},
    {"morvane.mobile.proxySysId", LUMO_CLOUD_TENANT_ID},
    {"morvane.mobile.proxyUri", LUMO_CLOUD_PROXY_FQDN},
    {"morvane.core.webproxy", LUMO_CLOUD_WEB_PROXY},
    {"morvane.core.webproxyenabled", LUMO_CLOUD_WEB_PROXYENABLED},
    {"morvane.core.iwa.enabled", LUMO_CLOUD_CONNECTOR_IWA_ENABLED},
    {"morvane.core.iwa.hostname", LUMO_CLOUD_CONNECTOR_IWA_HOSTNAME},
    {"morvane.core.iwa.useHttps", LUMO_CLOUD_CONNECTOR_IWA_USEHTTPS},
    {"morvane.core.iwa.httpPort", LUMO_CLOUD_CONNECTOR_IWA_HTTP_PORT},
    {"morvane.core.iwa.httpsPort", LUMO_CLOUD_CONNECTOR_IWA_HTTPS_PORT},
};
