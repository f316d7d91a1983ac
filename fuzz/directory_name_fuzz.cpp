// Distinguished names, service principal names and filter values as anybody may spell them.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "basalt/canonical_spn.h"
#include "basalt/directory.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  dnsDomainOf(text);
  const lumo::CanonicalSpn spn(text);
  if (spn.valid() && text.find('/') == std::string::npos) std::abort();
  if (escapeFilterValue(text).find_first_of("*()") != std::string::npos) std::abort();
  return 0;
}
