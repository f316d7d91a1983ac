// Kerberos facts in plain types, for rooms that know no Kerberos header.
#pragma once

#include <optional>
#include <string>

// The library's name of an encryption type, empty when it has none (krb5_enctype_to_string).
std::optional<std::string> krb5EncTypeName(int encType);

// True for the types of former times (RC4, triple DES): what they protect can be broken or guessed.
bool krb5EncTypeIsWeak(int encType);

// The machine account's principal in the keytab at `path`, NAME$@REALM. Of several accounts the one that is called like
// the host, else one in the default realm, else the one with the highest key version. Empty when the file is missing,
// unreadable or holds none.
std::optional<std::string> machinePrincipal(const std::string& path);
