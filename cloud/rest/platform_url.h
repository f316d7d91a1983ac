// Where logins, sign-ins and events may be sent: nowhere without TLS unless an administrator wrote that very URL into
// the configuration. Internal.
#pragma once

#include <string>

// `url` is that of a request to the platform. Throws lumo::CloudException for one without a scheme, "The platform's URL
// is empty or has no scheme: ...", and for one without TLS, "The platform's URL has no TLS: ...", unless it lies below
// the zone's URL of the configuration. Performs no I/O. Any thread.
void requirePlatformUrl(const std::string& url);

// The same for the page where this machine signs in: "The URL of the sign-in has no TLS: ...", unless it lies below
// `ferrod.cloud.iwa.url`. One without a scheme passes: it is asked with TLS.
void requireSignInUrl(const std::string& url);
