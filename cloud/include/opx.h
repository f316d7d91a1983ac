// The web proxy setting of the whole process.
#pragma once

#include <string>

#include "cloud/include/cloud_object_pool.h"

// Takes the setting anew from the configuration and the credential file /var/morvand/httpproxy.cred. To be called when
// the configuration was read. A credential that cannot be had is no failure: level 4 in the log says so, and the proxy
// is used without. Throws what lumo::Props throws at its first call. Any thread. Logs by "cloud.opx.processor".
void UpdateCloudHttpProxy();

// What to go through to that platform URL: nothing with a direct connection; the configured proxy; else the connector
// in use, without credentials, which is empty where there is none. Throws lumo::CloudConnectorException "Can not get
// ADAgent". Any thread.
CloudProxyInfo getCloudHttpProxy(const std::string& url);
