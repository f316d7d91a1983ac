// Distinguished names, service principal names and filter values as anybody may spell them.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "basalt/directory/canonical_spn.h"
#include "basalt/directory/directory.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  dnsDomainOf(text);
  // What stands behind the first component is a name of one level less, in the same domain, and spelt as before.
  const std::string parent = LDAPBinding::parent(text);
  if (!parent.empty()) {
    if (!isDistinguishedName(text) || !isDistinguishedName(parent)) std::abort();
    if (text.compare(text.size() - parent.size(), parent.size(), parent) != 0) std::abort();
    const std::string domain = dnsDomainOf(text);
    const std::string above = dnsDomainOf(parent);
    if (domain != above && domain.find('.' + above) == std::string::npos) std::abort();
  }
  const lumo::CanonicalSpn spn(text);
  if (spn.valid() && text.find('/') == std::string::npos) std::abort();
  if (escapeFilterValue(text).find_first_of("*()") != std::string::npos) std::abort();
  return 0;
}
