// DNS answers with SRV records. Ordering them loses none.
#include <cstdint>
#include <cstdlib>

#include "basalt/directory/directory_srv.h"
#include "base/include/exceptions.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    const auto records = lumo::parseSrvAnswer(data, size);
    const auto ordered = lumo::orderSrvRecords(records, [&](std::uint32_t limit) { return limit / 2; });
    if (ordered.size() != records.size()) std::abort();
  } catch (const lumo::BadDataException&) {
  }
  return 0;
}
