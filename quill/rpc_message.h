// The messages of the local RPC in text form, both directions. docs/rpc.md tells the format.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "basalt/directory/directory.h"
#include "quill/local_rpc_session.h"

namespace lumo {

// Codes of error replies: those of JSON-RPC 2.0, and our own from -32000 downwards.
namespace rpc {
inline constexpr int ParseError = -32700;
inline constexpr int InvalidRequest = -32600;
inline constexpr int UnknownMethod = -32601;
inline constexpr int InvalidParams = -32602;
inline constexpr int InternalError = -32603;
inline constexpr int RequestFailed = -32000;
inline constexpr int CallerRefused = -32001;
inline constexpr int NotAuthenticated = -32002;
inline constexpr int ReplyTooLarge = -32003;
inline constexpr int NoPlace = -32004;
inline constexpr int TooManyOfUser = -32005;
}  // namespace rpc

// Own: a method that the agent has beside the others.
enum class RpcMethod { AuthenticateProcess, GetUserObj, LdapFetch, GetFipsMode, Own };

// One request; a method uses the fields that it knows.
struct RpcRequest {
  std::int64_t id = 0;
  RpcMethod method = RpcMethod::AuthenticateProcess;
  std::string name;                                    // getUserObj
  UserLookup lookup = UNIX_ONLY;                       // getUserObj
  std::string base;                                    // ldapFetch
  std::string dn;                                      // ldapFetch
  std::optional<std::vector<std::string>> attributes;  // ldapFetch; absent: all
  int flags = 0;                                       // ldapFetch
  std::string ownMethod;                               // Own: its name
  std::string params;                                  // Own: JSON; "null" when a request came without
};

struct RpcFault {
  int code = 0;
  std::string message;
};

// Any JSON value, as text.
struct RpcJson {
  std::string text;
};

// What a request came to: true (done), a number, an object that may be null, a fault, or what an agent's own method
// gave.
using RpcResult = std::variant<bool, int, ADObjectPtr, RpcFault, RpcJson>;

struct RpcReply {
  std::optional<std::int64_t> id;  // absent when the peer could not read the request's
  RpcResult result;
};

// The name of a request's method on the wire.
std::string rpcMethodName(const RpcRequest& request);

// The first two are pure; they throw BadDataException for a text that cannot be encoded (a name that is no UTF-8, or
// params or a result that should be JSON and are not). Any thread.
std::string encodeRequest(const RpcRequest& request);
std::string encodeReply(const RpcReply& reply);

// Reads a request, or tells what is wrong with it as a reply that can be sent back. Never throws for bad content,
// however deeply nested.
std::variant<RpcRequest, RpcReply> decodeRequest(const std::string& content);
// Throws IPCException for a content that is no reply. What the result is taken for: one of the known forms, or RpcJson
// whatever it is.
enum class RpcResultForm { Known, Json };
RpcReply decodeReply(const std::string& content, RpcResultForm form = RpcResultForm::Known);

}  // namespace lumo
