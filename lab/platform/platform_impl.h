// What the simulator consists of.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>

#include "lab/platform/platform_faults.h"
#include "lab/platform/platform_simulator.h"

namespace ferrolab {

struct PlatformSimulator::Impl {
  explicit Impl(const PlatformOptions& options);
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  testsupport::HttpReply serve(const testsupport::HttpRequest& request, int firstConnection);
  testsupport::HttpReply siteCheck(const std::string& remoteUser);
  testsupport::HttpReply replied(const Call& call, std::unique_lock<std::mutex>& lock,
                                 const std::function<Answer()>& ask);
  void record(const Call& call, int status);
  // Throws std::invalid_argument; returns the members of the answer.
  std::string run(const JsonValue& command);

  // What a command says, the answer that it adds to, and the lock, held.
  struct Order {
    const JsonValue& said;
    JsonObject& answer;
    std::unique_lock<std::mutex>& lock;
  };
  using Commands = std::map<std::string, void (*)(Impl&, const Order&)>;
  static const Commands& commands();
  void resetAll();
  void expire(const std::string& what);
  std::string requestsOf(const std::string& endpoint) const;
  void addCounts(JsonObject& answer) const;
  JsonObject decide(const JsonValue& command, Offer::State state, std::unique_lock<std::mutex>& lock);

  PlatformOptions options;
  std::mutex mutex;
  std::condition_variable changed;  // a request was answered, or the end has come
  bool ends = false;
  PlatformCore core;
  Faults faults;
  std::deque<PlatformRequest> requests;
  // Last, so that they end first.
  std::unique_ptr<testsupport::HttpServer> server;
  std::unique_ptr<testsupport::HttpServer> pod;
};

}  // namespace ferrolab
