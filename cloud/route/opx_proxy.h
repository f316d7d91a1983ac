// The configured web proxy, for those who only read. Internal.
#pragma once

#include <optional>

#include "cloud/include/cloud_object_pool.h"

// What getCloudHttpProxy gives where it needs no connector: nothing with a direct connection, else the proxy of the
// last UpdateCloudHttpProxy. No value where a connector takes the proxy's place: none is configured, or it may not be
// used. Performs no I/O. Any thread.
std::optional<CloudProxyInfo> configuredHttpProxy();
