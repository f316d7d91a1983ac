// Frames of the local RPC, fed in pieces of every size. A frame that comes out must frame again to the bytes it came
// from.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "base/include/exceptions.h"
#include "quill/rpc_frame.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t piece = data[0] % 16U + 1U;
  const char* bytes = reinterpret_cast<const char*>(data) + 1;
  --size;
  lumo::RpcFrameReader reader;
  std::string taken;
  try {
    for (size_t at = 0; at < size; at += piece) {
      reader.feed(bytes + at, std::min(piece, size - at));
      while (auto content = reader.next()) taken += lumo::rpcFrame(*content);
    }
  } catch (const lumo::BadDataException&) {
  }
  if (taken.size() > size || taken.compare(0, taken.size(), bytes, taken.size()) != 0) std::abort();
  return 0;
}
