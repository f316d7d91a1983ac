// The client of a login that the configuration asks for.
#pragma once

#include <string>

#include "cloud/include/cloud_auth.h"

// A new client of the version `ferrod.cloud.rest.version`: "0", "1.0", anything else the newest. Each call makes one;
// they share only the pool, whose proxy setting is that of the last call. An empty `cloudUrl` means the platform that
// the connectors belong to. `uuid` tells the platform more about the user and may be empty; `authProfileType` is a
// CloudAuthProfile. The caller owns the client and deletes it. Throws lumo::CloudConnectorException "Cloud web proxy is
// not configured correctly." (result code -1) where there is neither a proxy nor a direct connection; BaseException
// "Error in setting up communication with Morvane Identify Platform." (1004) when the client cannot be made; what
// CloudConnectorLocator throws. Any thread. Logs by "cloud.object".
CloudAuth* getHandler(const std::string& cloudUrl, const std::string& userName, const std::string& uuid,
                      const int* authProfileType);
