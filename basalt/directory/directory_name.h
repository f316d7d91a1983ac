// Distinguished names as directories compare them. Internal to the platform library.
#pragma once

#include <optional>
#include <string>

namespace lumo {

struct ComparableName {
  // The same for two names that differ in the case of ASCII letters, in the choice of escapes or in blanks around
  // separators; different for all that name two objects.
  std::string text;
  // The value of the first level where that is one CN, its escapes undone; else empty.
  std::string commonName;
};

// Nothing for a text that is no distinguished name (RFC 4514) of at least one level.
std::optional<ComparableName> comparableName(const std::string& dn);

}  // namespace lumo
