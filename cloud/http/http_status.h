// The statuses of HTTP that decide something (RFC 9110). Internal.
#pragma once

inline constexpr long HTTP_OK = 200;
inline constexpr long HTTP_UNAUTHORIZED = 401;
