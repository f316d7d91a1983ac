// An agent behind a server of the local RPC, and clients of it that speak in bytes.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/include/exceptions.h"
#include "quill/local_rpc_server.h"
#include "quill/rpc_message.h"
#include "quill/tests/raw_peer.h"

// A small agent: knows two users and one host, and fails where it is told to.
class ServedAgent : public lumo::LocalRpcHandler {
 public:
  void authenticateProcess(const lumo::RpcCaller& caller) override {
    if (refuse) LUMO_THROW(lumo::IPCException, -1, "process %d is unknown", caller.pid);
    const std::lock_guard<std::mutex> lock(mutex);
    lastCaller = caller;
  }
  ADObjectPtr getUserObj(const lumo::RpcCaller&, const std::string& name, lumo::UserLookup lookup) override {
    if (name == "fail") throw std::runtime_error("out of luck");
    if (name == "odd") throw 7;
    if (name == "unknown" || lookup != lumo::UNIX_ONLY) return nullptr;
    ADObjectPtr user(new lumo::ADObject("CN=" + name));
    user->set(LUMO_USER_PRINCIPAL_NAME, {name + "@corp"});
    if (name == "broken") user->set("\xff", {"x"});
    return user;
  }
  ADObjectPtr ldapFetch(const lumo::RpcCaller&, const std::string& base, const std::string& dn,
                        const std::vector<std::string>* attributes, int flags) override {
    ADObjectPtr object(new lumo::ADObject(dn));
    object->set("base", {base});
    object->set("flags", {std::to_string(flags)});
    if (attributes != nullptr) object->set("wanted", *attributes);
    if (padding != 0) object->set("padding", {std::string(padding, 'x')});
    return object;
  }
  int getFipsMode(const lumo::RpcCaller&) override {
    std::unique_lock<std::mutex> lock(mutex);
    ++inHand;
    changed.notify_all();
    changed.wait(lock, [this] { return !hold; });
    --inHand;
    return 1;
  }
  std::string call(const lumo::RpcCaller& caller, const std::string& method, const std::string& params) override {
    if (method == "echo") return params;
    if (method == "pid") return std::to_string(caller.pid);
    if (method == "pad") return "\"" + std::string(padding, 'x') + "\"";
    if (method == "refuse") LUMO_THROW(lumo::RpcRefusedException, lumo::rpc::InvalidParams, "Wrong parameters");
    if (method == "fail") LUMO_THROW(lumo::IOException, 5, "no luck");
    return LocalRpcHandler::call(caller, method, params);
  }
  void awaitInHand(int count) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return inHand == count; });
  }
  void letGo() {
    const std::lock_guard<std::mutex> lock(mutex);
    hold = false;
    changed.notify_all();
  }

  std::atomic<bool> refuse{false};
  std::atomic<std::size_t> padding{0};
  std::mutex mutex;
  std::condition_variable changed;
  lumo::RpcCaller lastCaller;
  bool hold = false;
  int inHand = 0;
};

class LocalRpcServerTest : public testing::Test {
 protected:
  LocalRpcServerTest() {
    options.path = folder.file("agent");
    options.rootOnly = false;
  }
  lumo::LocalRpcSession session() { return lumo::LocalRpcSession(options.path, false, false); }
  // What a client that sends these bytes and waits gets back, frame by frame.
  std::vector<std::string> dialogue(const std::string& bytes) {
    const lumo::FileDescriptor client = raw::connectTo(options.path);
    raw::write(client, bytes);
    shutdown(client.get(), SHUT_WR);
    std::vector<std::string> contents;
    do {
      contents.push_back(raw::readFrame(client));
    } while (contents.back() != "END");
    return contents;
  }

  testsupport::TempFolder folder;
  ServedAgent agent;
  lumo::LocalRpcServerOptions options;
};

inline const std::string FIPS_FRAME = lumo::rpcFrame(R"({"jsonrpc":"2.0","id":1,"method":"getFipsMode","params":{}})");
inline const std::string FIPS_REPLY = R"({"jsonrpc":"2.0","id":1,"result":1})";
