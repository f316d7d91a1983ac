#include "quill/rpc_places.h"

#include <algorithm>

namespace lumo {

RpcPlaces rpcPlaces(int maxClients, bool rootOnly) {
  if (rootOnly) return {static_cast<std::size_t>(std::max(maxClients, 1)), 0, 0};
  const auto all = static_cast<std::size_t>(std::max(maxClients, 2));
  const std::size_t quarter = std::max<std::size_t>(all / 4, 1);
  return {all, all - quarter, quarter};
}

}  // namespace lumo
