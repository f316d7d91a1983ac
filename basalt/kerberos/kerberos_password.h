// A ticket for a password: one guess at one KDC for each attempt. Internal to the Kerberos unit.
#pragma once

#include <krb5.h>

#include <string>

#include "base/include/shredder.h"

namespace lumo {

// Gets a ticket-granting ticket for the principal. The password goes out in one AS exchange, after the round trip that
// asks for its salt; an answer ends the attempt, whichever KDC gave it. A KDC that does not answer is followed by the
// next one.
// Parameters: `lifetime` in seconds. Returns 0 with `creds` filled, which the caller frees with
// krb5_free_cred_contents, or the Kerberos code. Never asks a person: an expired password gives its error.
// Throws nothing. The thread of the context.
krb5_error_code ticketForPassword(krb5_context context, const std::string& principal, const Shredder& password,
                                  int lifetime, krb5_creds* creds);

}  // namespace lumo
