#include "quill/rpc_message.h"

#include <rapidjson/error/en.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <array>

#include "base/include/exceptions.h"
#include "base/include/printable.h"
#include "base/include/wipe.h"
#include "quill/rpc_raw.h"
#include "quill/rpc_text.h"

namespace lumo {
namespace {

using rapidjson::Document;
using rapidjson::Value;
using Allocator = Document::AllocatorType;

struct MethodRow {
  RpcMethod method;
  const char* name;
};
constexpr std::array<MethodRow, 4> METHODS{{{RpcMethod::AuthenticateProcess, "authenticateProcess"},
                                            {RpcMethod::GetUserObj, "getUserObj"},
                                            {RpcMethod::LdapFetch, "ldapFetch"},
                                            {RpcMethod::GetFipsMode, "getFipsMode"}}};

constexpr char LOOKUP_UNIX[] = "unix";

// Iterative: a peer chooses the depth of what it sends, and must not choose the depth of our stack.
constexpr unsigned PARSE = rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag;
using CheckedWriter = rapidjson::Writer<rapidjson::StringBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>,
                                        rapidjson::CrtAllocator, rapidjson::kWriteValidateEncodingFlag>;

// Why the content is no JSON, and where; null where it is one. The library takes a zero byte for the end of the text.
struct JsonFault {
  JsonFault(const Document& message, const std::string& content) {
    if (message.HasParseError()) {
      words = rapidjson::GetParseError_En(message.GetParseError());
      offset = message.GetErrorOffset();
    } else if ((offset = content.find('\0')) != std::string::npos) {
      words = "A zero byte stands in it.";
    }
  }

  const char* words = nullptr;
  std::size_t offset = 0;
};

std::string written(const Document& document) {
  rapidjson::StringBuffer buffer;
  CheckedWriter writer(buffer);
  if (!document.Accept(writer)) LUMO_THROW(BadDataException, -1, "An RPC message holds a name that is no UTF-8");
  return {buffer.GetString(), buffer.GetSize()};
}

Value name(const std::string& text, Allocator& allocator) {
  return Value(text.data(), static_cast<rapidjson::SizeType>(text.size()), allocator);
}

// The member, null when the value is no object or has none of that name.
const Value* member(const Value& value, const char* key) {
  if (!value.IsObject()) return nullptr;
  const auto found = value.FindMember(key);
  return found == value.MemberEnd() ? nullptr : &found->value;
}

bool isVersion2(const Value& message) {
  const Value* version = member(message, "jsonrpc");
  return version != nullptr && *version == "2.0";
}

std::optional<std::int64_t> idOf(const Value& message) {
  const Value* id = member(message, "id");
  if (id == nullptr || !id->IsInt64()) return std::nullopt;
  return id->GetInt64();
}

Value objectToJson(const ADObject& object, Allocator& allocator) {
  Value attributes(rapidjson::kObjectType);
  for (const auto& [attribute, content] : object.attributes()) {
    Value values(rapidjson::kArrayType);
    for (const auto& value : content.values()) values.PushBack(rpc::toJson(value, allocator), allocator);
    attributes.AddMember(name(attribute, allocator), values, allocator);
  }
  Value result(rapidjson::kObjectType);
  result.AddMember("dn", rpc::toJson(object.dn(), allocator), allocator);
  result.AddMember("attributes", attributes, allocator);
  return result;
}

std::optional<std::vector<std::string>> textsFrom(const Value& array) {
  if (!array.IsArray()) return std::nullopt;
  std::vector<std::string> texts;
  for (const auto& element : array.GetArray()) {
    auto text = rpc::bytesFrom(element);
    if (!text) return std::nullopt;
    texts.push_back(std::move(*text));
  }
  return texts;
}

// Null when the value is no object of the directory.
ADObjectPtr objectFrom(const Value& value) {
  const Value* dn = member(value, "dn");
  const Value* attributes = member(value, "attributes");
  if (dn == nullptr || attributes == nullptr || !attributes->IsObject()) return nullptr;
  const auto dnText = rpc::bytesFrom(*dn);
  if (!dnText) return nullptr;
  ADObjectPtr object(new ADObject(*dnText));
  for (const auto& attribute : attributes->GetObject()) {
    auto values = textsFrom(attribute.value);
    if (!values) return nullptr;
    object->set({attribute.name.GetString(), attribute.name.GetStringLength()}, std::move(*values));
  }
  return object;
}

Value paramsOf(const RpcRequest& request, Allocator& allocator) {
  Value params(rapidjson::kObjectType);
  if (request.method == RpcMethod::GetUserObj) {
    params.AddMember("name", rpc::toJson(request.name, allocator), allocator);
    if (request.lookup != UNIX_ONLY) LUMO_THROW(BadDataException, -1, "An RPC look-up is none of the protocol's");
    params.AddMember("lookup", LOOKUP_UNIX, allocator);
  }
  if (request.method == RpcMethod::LdapFetch) {
    Value attributes;
    if (request.attributes) {
      attributes.SetArray();
      for (const auto& one : *request.attributes) attributes.PushBack(rpc::toJson(one, allocator), allocator);
    }
    params.AddMember("base", rpc::toJson(request.base, allocator), allocator);
    params.AddMember("dn", rpc::toJson(request.dn, allocator), allocator);
    params.AddMember("attributes", attributes, allocator);
    params.AddMember("flags", request.flags, allocator);
  }
  return params;
}

bool takeText(const Value& params, const char* key, std::string& into) {
  const Value* value = member(params, key);
  auto text = value == nullptr ? std::nullopt : rpc::bytesFrom(*value);
  if (text) into = std::move(*text);
  return text.has_value();
}

bool takeLdapFetch(const Value& params, RpcRequest& request) {
  const Value* attributes = member(params, "attributes");
  if (attributes != nullptr && !attributes->IsNull()) {
    request.attributes = textsFrom(*attributes);
    if (!request.attributes) return false;
  }
  const Value* flags = member(params, "flags");
  if (flags == nullptr || !flags->IsInt()) return false;
  request.flags = flags->GetInt();
  return takeText(params, "base", request.base) && takeText(params, "dn", request.dn);
}

bool takeParams(const Value& params, RpcRequest& request) {
  switch (request.method) {
    case RpcMethod::GetUserObj: {
      const Value* lookup = member(params, "lookup");
      return takeText(params, "name", request.name) && lookup != nullptr && *lookup == LOOKUP_UNIX;
    }
    case RpcMethod::LdapFetch:
      return takeLdapFetch(params, request);
    case RpcMethod::AuthenticateProcess:
    case RpcMethod::GetFipsMode:
    case RpcMethod::Own:
      break;
  }
  return true;
}

bool writeJson(CheckedWriter& writer, const char* key, const std::string& json) {
  if (!rpc::isJson(json)) LUMO_THROW(BadDataException, -1, "What an RPC message holds as %s is no JSON", key);
  return writer.Key(key) && writer.RawValue(json.data(), json.size(), rapidjson::kObjectType);
}

// A message whose last members are texts already.
template <typename Members>
std::string encodeAround(const std::optional<std::int64_t>& id, const Members& members) {
  rapidjson::StringBuffer buffer;
  CheckedWriter writer(buffer);
  writer.StartObject();
  writer.Key("jsonrpc");
  writer.String("2.0");
  writer.Key("id");
  id ? writer.Int64(*id) : writer.Null();
  if (!members(writer)) LUMO_THROW(BadDataException, -1, "An RPC message holds a name that is no UTF-8");
  writer.EndObject();
  return {buffer.GetString(), buffer.GetSize()};
}

std::string encodeOwn(const RpcRequest& request) {
  const auto nameLength = static_cast<rapidjson::SizeType>(request.ownMethod.size());
  return encodeAround(request.id, [&](CheckedWriter& writer) {
    return writer.Key("method") && writer.String(request.ownMethod.c_str(), nameLength) &&
           writeJson(writer, "params", request.params);
  });
}

Value faultToJson(const RpcFault& fault, Allocator& allocator) {
  Value error(rapidjson::kObjectType);
  error.AddMember("code", fault.code, allocator);
  error.AddMember("message", name(lumo::printable(fault.message), allocator), allocator);
  return error;
}

std::optional<RpcFault> faultFrom(const Value& error) {
  const Value* code = member(error, "code");
  const Value* message = member(error, "message");
  if (code == nullptr || !code->IsInt() || message == nullptr || !message->IsString()) return std::nullopt;
  return RpcFault{code->GetInt(), {message->GetString(), message->GetStringLength()}};
}

std::optional<RpcResult> resultFrom(const Value& value) {
  if (value.IsBool()) return value.GetBool();
  if (value.IsInt()) return value.GetInt();
  if (value.IsNull()) return ADObjectPtr();
  const ADObjectPtr object = objectFrom(value);
  if (!object) return std::nullopt;
  return object;
}

}  // namespace

std::string rpcMethodName(const RpcRequest& request) {
  const auto* row =
      std::find_if(METHODS.begin(), METHODS.end(), [&](const MethodRow& r) { return r.method == request.method; });
  return row == METHODS.end() ? request.ownMethod : row->name;
}

std::string encodeRequest(const RpcRequest& request) {
  if (request.method == RpcMethod::Own) return encodeOwn(request);
  Document message(rapidjson::kObjectType);
  auto& allocator = message.GetAllocator();
  message.AddMember("jsonrpc", "2.0", allocator);
  message.AddMember("id", Value(request.id), allocator);
  message.AddMember("method", name(rpcMethodName(request), allocator), allocator);
  message.AddMember("params", paramsOf(request, allocator), allocator);
  return written(message);
}

std::string encodeReply(const RpcReply& reply) {
  if (const auto* json = std::get_if<RpcJson>(&reply.result)) {
    return encodeAround(reply.id, [&](CheckedWriter& writer) { return writeJson(writer, "result", json->text); });
  }
  Document message(rapidjson::kObjectType);
  auto& allocator = message.GetAllocator();
  message.AddMember("jsonrpc", "2.0", allocator);
  message.AddMember("id", reply.id ? Value(*reply.id) : Value(), allocator);
  if (const auto* fault = std::get_if<RpcFault>(&reply.result)) {
    message.AddMember("error", faultToJson(*fault, allocator), allocator);
    return written(message);
  }
  Value result;
  if (const auto* done = std::get_if<bool>(&reply.result)) result.SetBool(*done);
  if (const auto* number = std::get_if<int>(&reply.result)) result.SetInt(*number);
  const auto* object = std::get_if<ADObjectPtr>(&reply.result);
  if (object != nullptr && *object) result = objectToJson(**object, allocator);
  message.AddMember("result", result, allocator);
  return written(message);
}

std::variant<RpcRequest, RpcReply> decodeRequest(const std::string& content) {
  // In place, so that what may be a secret stands in this copy alone.
  std::string copy = content;
  const WipeAtEnd wiped(copy);
  Document message;
  message.ParseInsitu<PARSE>(copy.data());
  if (const JsonFault fault(message, content); fault.words != nullptr) {
    return RpcReply{std::nullopt, RpcFault{rpc::ParseError, std::string("The request is no JSON: ") + fault.words}};
  }
  const auto id = idOf(message);
  const Value* method = member(message, "method");
  if (!isVersion2(message) || !id || method == nullptr || !method->IsString()) {
    return RpcReply{id, RpcFault{rpc::InvalidRequest, "The message is no JSON-RPC 2.0 request with an integer id"}};
  }
  const auto* row = std::find_if(METHODS.begin(), METHODS.end(), [&](const MethodRow& r) { return *method == r.name; });
  RpcRequest request;
  request.id = *id;
  if (row == METHODS.end()) {
    request.method = RpcMethod::Own;
    request.ownMethod.assign(method->GetString(), method->GetStringLength());
    request.params = rpc::memberText(content, "params").value_or("null");
    return request;
  }
  request.method = row->method;
  const Value none;
  const Value* params = member(message, "params");
  if (!takeParams(params != nullptr ? *params : none, request)) {
    return RpcReply{id, RpcFault{rpc::InvalidParams, std::string("Wrong parameters for ") + row->name}};
  }
  return request;
}

RpcReply decodeReply(const std::string& content, RpcResultForm form) {
  Document message;
  message.Parse<PARSE>(content.data(), content.size());
  if (const JsonFault fault(message, content); fault.words != nullptr) {
    LUMO_THROW(IPCException, -1, "The agent's reply is no JSON: %s (byte %zu)", fault.words, fault.offset);
  }
  const Value* result = member(message, "result");
  const Value* error = member(message, "error");
  const Value* id = member(message, "id");
  RpcReply reply{idOf(message), false};
  const bool readableId = reply.id || (error != nullptr && id != nullptr && id->IsNull());
  if (!isVersion2(message) || !readableId || (result == nullptr) == (error == nullptr)) {
    LUMO_THROW(IPCException, -1, "The agent's reply is no JSON-RPC 2.0 reply");
  }
  if (error != nullptr) {
    const auto fault = faultFrom(*error);
    if (!fault) LUMO_THROW(IPCException, -1, "The agent's reply holds a broken error");
    reply.result = *fault;
    return reply;
  }
  if (form == RpcResultForm::Json) {
    reply.result = RpcJson{rpc::memberText(content, "result").value_or("null")};
    return reply;
  }
  auto value = resultFrom(*result);
  if (!value) LUMO_THROW(IPCException, -1, "The agent's reply holds a result of an unknown form");
  reply.result = std::move(*value);
  return reply;
}

}  // namespace lumo
