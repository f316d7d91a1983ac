// Frames of the local RPC, fed in pieces of every size. A frame that comes out must frame again to the bytes it came
// from, and what is said of a message can be printed.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <variant>

#include "base/include/exceptions.h"
#include "fuzz/shown_text.h"
#include "quill/rpc_frame.h"
#include "quill/rpc_message.h"

namespace {

void readMessage(const std::string& content) {
  const auto decoded = lumo::decodeRequest(content);
  if (const auto* refusal = std::get_if<lumo::RpcReply>(&decoded)) {
    requireShown(std::get<lumo::RpcFault>(refusal->result).message, false);
  }
  if (const auto* request = std::get_if<lumo::RpcRequest>(&decoded)) {
    const auto again = lumo::decodeRequest(lumo::encodeRequest(*request));
    const auto* same = std::get_if<lumo::RpcRequest>(&again);
    if (same == nullptr || same->method != request->method || same->id != request->id || same->dn != request->dn ||
        same->ownMethod != request->ownMethod || same->params != request->params) {
      std::abort();
    }
  }
  try {
    const lumo::RpcReply reply = lumo::decodeReply(content, lumo::RpcResultForm::Json);
    lumo::encodeReply(reply);
    lumo::encodeReply(lumo::decodeReply(content));
  } catch (const lumo::IPCException& failure) {
    requireShown(failure.what(), false);
  } catch (const lumo::BadDataException& failure) {
    requireShown(failure.what(), false);
  }
}

}  // namespace

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
      while (auto content = reader.next()) {
        taken += lumo::rpcFrame(*content);
        readMessage(*content);
      }
    }
  } catch (const lumo::BadDataException&) {
  }
  if (taken.size() > size || taken.compare(0, taken.size(), bytes, taken.size()) != 0) std::abort();
  return 0;
}
