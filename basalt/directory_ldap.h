// The real directory: LDAP servers found by DNS.
#pragma once

#include "basalt/directory.h"

// The process-wide connector over OpenLDAP with SASL GSSAPI. Any thread.
DirectoryConnector& ldapDirectoryConnector();
