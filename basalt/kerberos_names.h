// Kerberos facts in plain types, for rooms that know no Kerberos header.
#pragma once

#include <optional>
#include <string>

// The library's name of an encryption type, empty when it has none (krb5_enctype_to_string).
std::optional<std::string> krb5EncTypeName(int encType);

// The machine account's principal in the keytab at `path`, NAME$@REALM: the entry with the highest key version. Empty
// when the file is missing, unreadable or holds none.
std::optional<std::string> machinePrincipal(const std::string& path);
