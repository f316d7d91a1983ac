#include "quill/rpc_message.h"

#include <gtest/gtest.h>

#include "base/include/exceptions.h"
#include "quill/rpc_frame.h"

namespace {

using namespace lumo;

RpcRequest request(RpcMethod method, std::int64_t id = 1) {
  RpcRequest made;
  made.id = id;
  made.method = method;
  return made;
}

RpcRequest taken(const std::string& content) { return std::get<RpcRequest>(decodeRequest(content)); }

// "CODE id MESSAGE" of the error reply that a content gets.
std::string faultOf(const std::string& content) {
  const auto decoded = decodeRequest(content);
  const auto* reply = std::get_if<RpcReply>(&decoded);
  if (reply == nullptr) return "taken";
  const auto& fault = std::get<RpcFault>(reply->result);
  return std::to_string(fault.code) + " " + (reply->id ? std::to_string(*reply->id) : "null") + " " + fault.message;
}

std::string replyRefusal(const std::string& content) {
  try {
    decodeReply(content);
  } catch (const IPCException& failure) {
    return failure.what();
  }
  return "taken";
}

std::string requestWith(const std::string& method, const std::string& params) {
  return R"({"jsonrpc":"2.0","id":9,"method":")" + method + R"(","params":)" + params + "}";
}

const std::string EVERY_BYTE = [] {
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
  return bytes;
}();

TEST(RpcMessage, RequestsHaveTheirExactText) {
  EXPECT_EQ(encodeRequest(request(RpcMethod::AuthenticateProcess)),
            R"({"jsonrpc":"2.0","id":1,"method":"authenticateProcess","params":{}})");
  EXPECT_EQ(encodeRequest(request(RpcMethod::GetFipsMode, 4)),
            R"({"jsonrpc":"2.0","id":4,"method":"getFipsMode","params":{}})");
  RpcRequest user = request(RpcMethod::GetUserObj, 2);
  user.name = "jdoe";
  EXPECT_EQ(encodeRequest(user),
            R"({"jsonrpc":"2.0","id":2,"method":"getUserObj","params":{"name":"jdoe","lookup":"unix"}})");
  user.lookup = static_cast<UserLookup>(0);  // the only other value that the type can hold
  EXPECT_THROW(encodeRequest(user), BadDataException);
  RpcRequest fetch = request(RpcMethod::LdapFetch, 3);
  fetch.dn = "CN=h,DC=corp";
  EXPECT_EQ(encodeRequest(fetch), R"({"jsonrpc":"2.0","id":3,"method":"ldapFetch","params":)"
                                  R"({"base":"","dn":"CN=h,DC=corp","attributes":null,"flags":0}})");
}

TEST(RpcMessage, AnAgentsOwnMethodHasItsParamsAsTheyStand) {
  const auto paramsOf = [](const std::string& params) {
    const RpcRequest own = taken(requestWith("shutdown", params));
    EXPECT_EQ(own.method, RpcMethod::Own);
    EXPECT_EQ(own.ownMethod, "shutdown");
    return own.params;
  };
  for (const char* params : {"{}", R"({"a":{"params":[1,{}]},"b":"\u0000\"}"})", "[1, 2 ]", "1.50", "-7e+2", "null",
                             "true", R"("text, with \"quotes\"")", R"("")"}) {
    EXPECT_EQ(paramsOf(params), params);
  }
  EXPECT_EQ(paramsOf(" \n[ ]\t "), "[ ]");
  EXPECT_EQ(taken(R"({"params" : {"x":1} ,"id":9,"jsonrpc":"2.0","method":"shutdown"})").params, R"({"x":1})");
  EXPECT_EQ(taken(R"({"jsonrpc":"2.0","id":9,"method":"shutdown","more":{"params":5}})").params, "null");
  EXPECT_EQ(taken(R"({"jsonrpc":"2.0","id":9,"method":"shutdown","p\u0061rams":1,"params":2})").params, "1");
  const std::string deep = std::string(300'000, '[') + std::string(300'000, ']');
  EXPECT_EQ(paramsOf(deep), deep);
}

TEST(RpcMessage, AnAgentsOwnMethodHasItsExactText) {
  RpcRequest own = request(RpcMethod::Own, 5);
  own.ownMethod = "say \"no\"";
  own.params = R"([ {"a":1.50} ])";
  EXPECT_EQ(encodeRequest(own), R"({"jsonrpc":"2.0","id":5,"method":"say \"no\"","params":[ {"a":1.50} ]})");
  EXPECT_EQ(taken(encodeRequest(own)).ownMethod, own.ownMethod);
  EXPECT_EQ(encodeReply({5, RpcJson{R"({"a":[null]})"}}), R"({"jsonrpc":"2.0","id":5,"result":{"a":[null]}})");
  const std::string deep = std::string(300'000, '[') + std::string(300'000, ']');
  EXPECT_EQ(encodeReply({5, RpcJson{deep}}), R"({"jsonrpc":"2.0","id":5,"result":)" + deep + "}");
}

TEST(RpcMessage, WhatIsNoJsonIsNotSent) {
  const auto refusal = [](const auto& encode) {
    try {
      encode();
    } catch (const BadDataException& failure) {
      return std::string(failure.what());
    }
    return std::string("sent");
  };
  for (const std::string& text : {std::string(), std::string("{"), std::string("1 2"), std::string("\"\xff\""),
                                  std::string("1\0", 2), std::string("nul"), std::string("{}}")}) {
    RpcRequest own = request(RpcMethod::Own);
    own.ownMethod = "m";
    own.params = text;
    EXPECT_EQ(refusal([&] { encodeRequest(own); }), "What an RPC message holds as params is no JSON") << text;
    EXPECT_EQ(refusal([&] {
                encodeReply({1, RpcJson{text}});
              }),
              "What an RPC message holds as result is no JSON")
        << text;
  }
  RpcRequest odd = request(RpcMethod::Own);
  odd.ownMethod = "\xff";
  odd.params = "{}";
  EXPECT_EQ(refusal([&] { encodeRequest(odd); }), "An RPC message holds a name that is no UTF-8");
}

TEST(RpcMessage, AResultIsReadAsJsonWhereItIsAskedFor) {
  for (const char* result :
       {"true", "null", "[1,\"x\"]", R"({"dn":"d","attributes":{}})", "\"\"", "12345678901234567890"}) {
    const RpcReply reply =
        decodeReply(R"({"jsonrpc":"2.0","id":3,"result":)" + std::string(result) + "}", RpcResultForm::Json);
    EXPECT_EQ(reply.id, 3);
    EXPECT_EQ(std::get<RpcJson>(reply.result).text, result);
  }
}

TEST(RpcMessage, RequestsComeBackAsTheyWere) {
  RpcRequest fetch = request(RpcMethod::LdapFetch, 77);
  fetch.base = "DC=corp";
  fetch.dn = EVERY_BYTE;
  fetch.attributes = {"cn", "objectSid"};
  fetch.flags = -3;
  const RpcRequest back = taken(encodeRequest(fetch));
  EXPECT_EQ(back.id, 77);
  EXPECT_EQ(back.method, RpcMethod::LdapFetch);
  EXPECT_EQ(back.base, "DC=corp");
  EXPECT_EQ(back.dn, EVERY_BYTE);
  EXPECT_EQ(back.attributes, fetch.attributes);
  EXPECT_EQ(back.flags, -3);
  fetch.attributes.reset();
  EXPECT_EQ(taken(encodeRequest(fetch)).attributes, std::nullopt);
  RpcRequest user = request(RpcMethod::GetUserObj);
  user.name = "J\xf6rg";  // not UTF-8
  EXPECT_EQ(taken(encodeRequest(user)).name, "J\xf6rg");
}

TEST(RpcMessage, UnreadableRequestsGetTheirErrorReply) {
  EXPECT_EQ(faultOf("garbage"), "-32700 null The request is no JSON: Invalid value.");
  EXPECT_EQ(faultOf("{\"a\":\"\xff\"}"), "-32700 null The request is no JSON: Invalid encoding in string.");
  EXPECT_EQ(faultOf(requestWith("getFipsMode", "{}") + '\0' + "{}"),
            "-32700 null The request is no JSON: A zero byte stands in it.");
  const std::string invalid = " The message is no JSON-RPC 2.0 request with an integer id";
  EXPECT_EQ(faultOf("[]"), "-32600 null" + invalid);
  EXPECT_EQ(faultOf("7"), "-32600 null" + invalid);
  EXPECT_EQ(faultOf(R"({"jsonrpc":"1.0","id":5,"method":"getFipsMode"})"), "-32600 5" + invalid);
  EXPECT_EQ(faultOf(R"({"jsonrpc":"2.0","id":"5","method":"getFipsMode"})"), "-32600 null" + invalid);
  EXPECT_EQ(faultOf(R"({"jsonrpc":"2.0","method":"getFipsMode"})"), "-32600 null" + invalid);
  EXPECT_EQ(faultOf(R"({"jsonrpc":"2.0","id":5,"method":6})"), "-32600 5" + invalid);
}

TEST(RpcMessage, WrongParametersAreNamedByTheirMethod) {
  for (const char* params : {"{}", "[]", "null", R"({"name":"x"})", R"({"name":7,"lookup":"unix"})",
                             R"({"name":"x","lookup":"windows"})", R"({"name":{"hex":"0g"},"lookup":"unix"})"}) {
    EXPECT_EQ(faultOf(requestWith("getUserObj", params)), "-32602 9 Wrong parameters for getUserObj") << params;
  }
  for (const char* params :
       {"{}", R"({"base":"","dn":"d","attributes":null})", R"({"base":"","dn":"d","attributes":null,"flags":"0"})",
        R"({"base":"","dn":"d","attributes":{},"flags":0})", R"({"base":"","dn":"d","attributes":[1],"flags":0})",
        R"({"base":"","attributes":null,"flags":0})", R"({"dn":"d","attributes":null,"flags":0})",
        R"({"base":"","dn":"d","flags":4294967296})"}) {
    EXPECT_EQ(faultOf(requestWith("ldapFetch", params)), "-32602 9 Wrong parameters for ldapFetch") << params;
  }
  EXPECT_EQ(taken(requestWith("getFipsMode", R"({"unknown":1})")).method, RpcMethod::GetFipsMode);
  EXPECT_EQ(taken(R"({"jsonrpc":"2.0","id":1,"method":"getFipsMode"})").method, RpcMethod::GetFipsMode);
}

TEST(RpcMessage, NestingBombsAreRefusedWithoutACrash) {
  const std::string open(MAX_FRAME, '[');
  EXPECT_EQ(faultOf(open).substr(0, 11), "-32700 null");
  EXPECT_EQ(replyRefusal(open).substr(0, 27), "The agent's reply is no JSO");
  const std::string closed = std::string(MAX_FRAME / 2, '[') + std::string(MAX_FRAME / 2, ']');
  EXPECT_EQ(faultOf(closed).substr(0, 11), "-32600 null");
  EXPECT_EQ(replyRefusal(closed), "The agent's reply is no JSON-RPC 2.0 reply");
  std::string objects;
  for (std::size_t i = 0; i < MAX_FRAME / 6; ++i) objects += R"({"a":)";
  EXPECT_EQ(faultOf(objects).substr(0, 11), "-32700 null");
}

TEST(RpcMessage, RepliesHaveTheirExactText) {
  ADObjectPtr object(new ADObject("CN=h"));
  object->set("cn", {"h"});
  object->set("bin", {std::string("\x01\x02\xff", 3), std::string("\0a", 2)});
  EXPECT_EQ(encodeReply({1, true}), R"({"jsonrpc":"2.0","id":1,"result":true})");
  EXPECT_EQ(encodeReply({2, 1}), R"({"jsonrpc":"2.0","id":2,"result":1})");
  EXPECT_EQ(encodeReply({3, ADObjectPtr()}), R"({"jsonrpc":"2.0","id":3,"result":null})");
  EXPECT_EQ(encodeReply({4, object}), R"({"jsonrpc":"2.0","id":4,"result":{"dn":"CN=h","attributes":)"
                                      R"({"bin":[{"hex":"0102ff"},"\u0000a"],"cn":["h"]}}})");
  EXPECT_EQ(encodeReply({std::nullopt, RpcFault{-32001, "no"}}),
            R"({"jsonrpc":"2.0","id":null,"error":{"code":-32001,"message":"no"}})");
  EXPECT_EQ(encodeReply({5, RpcFault{-32000, "caf\xe9"}}),
            R"({"jsonrpc":"2.0","id":5,"error":{"code":-32000,"message":"caf\\xe9"}})");
  EXPECT_EQ(encodeReply({6, RpcFault{-32000, "caf\xc3\xa9"}}),
            "{\"jsonrpc\":\"2.0\",\"id\":6,\"error\":{\"code\":-32000,\"message\":\"caf\xc3\xa9\"}}");
}

TEST(RpcMessage, ObjectsComeBackByteByByte) {
  ADObjectPtr object(new ADObject("CN=\xf6"));
  object->set("objectSid", {EVERY_BYTE, "", std::string(1, '\0'), "\xed\xa0\x80", "\xc3"});
  object->set("none", {});
  const RpcReply reply = decodeReply(encodeReply({1, object}));
  const auto back = std::get<ADObjectPtr>(reply.result);
  EXPECT_EQ(reply.id, 1);
  EXPECT_EQ(back->dn(), "CN=\xf6");
  EXPECT_EQ((*back)["objectSid"].values(), (*object)["objectSid"].values());
  EXPECT_EQ(back->attributes().size(), 2U);
}

TEST(RpcMessage, AnAttributeNameThatIsNoUtf8CannotBeSent) {
  ADObjectPtr object(new ADObject("CN=h"));
  object->set("\xff", {"x"});
  EXPECT_THROW(encodeReply({1, object}), BadDataException);
}

TEST(RpcMessage, BrokenRepliesAreRefused) {
  EXPECT_EQ(replyRefusal("garbage"), "The agent's reply is no JSON: Invalid value. (byte 0)");
  EXPECT_EQ(replyRefusal(R"({"jsonrpc":"2.0","id":1,"result":true})" + std::string(1, '\0')),
            "The agent's reply is no JSON: A zero byte stands in it. (byte 38)");
  const std::string noReply = "The agent's reply is no JSON-RPC 2.0 reply";
  for (const char* content :
       {"[]", R"({"jsonrpc":"2.0","id":1})", R"({"id":1,"result":true})", R"({"jsonrpc":"2.0","result":true})",
        R"({"jsonrpc":"2.0","id":null,"result":true})", R"({"jsonrpc":"2.0","id":1.5,"result":true})",
        R"({"jsonrpc":"2.0","id":1,"result":true,"error":{"code":1,"message":""}})"}) {
    EXPECT_EQ(replyRefusal(content), noReply) << content;
  }
  for (const char* error : {"null", "{}", R"({"code":1})", R"({"code":"1","message":""})", R"({"message":"m"})"}) {
    EXPECT_EQ(replyRefusal(std::string(R"({"jsonrpc":"2.0","id":1,"error":)") + error + "}"),
              "The agent's reply holds a broken error")
        << error;
  }
  for (const char* result :
       {"1.5", "\"text\"", "[]", "{}", "99999999999", R"({"dn":"d"})", R"({"dn":1,"attributes":{}})",
        R"({"dn":"d","attributes":[]})", R"({"dn":"d","attributes":{"cn":"h"}})",
        R"({"dn":"d","attributes":{"cn":[1]}})", R"({"dn":"d","attributes":{"cn":[{"hex":"A"}]}})",
        R"({"dn":"d","attributes":{"cn":[{"hex":"AB"}]}})", R"({"dn":"d","attributes":{"cn":[{"hex":1}]}})",
        R"({"dn":"d","attributes":{"cn":[{"base64":"AA"}]}})",
        R"({"dn":"d","attributes":{"cn":[{"hex":"01","more":1}]}})"}) {
    EXPECT_EQ(replyRefusal(std::string(R"({"jsonrpc":"2.0","id":1,"result":)") + result + "}"),
              "The agent's reply holds a result of an unknown form")
        << result;
  }
}

}  // namespace
