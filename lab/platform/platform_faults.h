// Faults on demand: which request they meet, and what becomes of its reply.
#pragma once

#include <chrono>
#include <list>
#include <memory>
#include <string>

#include "lab/platform/platform_core.h"

namespace ferrolab {

struct Fault {
  enum Kind { Status, Refuse, Cut, Hang, Delay, Body, Broken, Empty, Huge, Remove, Set, Foreign, NoCookie, Header };
  enum Place { Before, InHeaders, InBody };

  Kind kind = Status;
  std::string endpoint;  // a path, the last part of one, or "*"
  int count = 1;         // 0: for ever
  int after = 0;
  long number = 0;   // status, milliseconds, bytes
  std::string text;  // path, body, header line
  Place place = Before;
  std::shared_ptr<const rapidjson::Document> value;  // of Set and Refuse

  // The request never reaches the platform.
  bool comesFirst() const {
    return kind == Status || kind == Refuse || kind == Hang || (kind == Cut && place == Before);
  }
  // Throws std::invalid_argument.
  static Fault read(const JsonValue& json);

 private:
  // `name` is that of the member that says what to do.
  void readDetail(const JsonValue& json, const std::string& name);
};

class Faults {
 public:
  void add(const Fault& fault) { m_faults.push_back(fault); }
  void clear() { m_faults.clear(); }
  size_t size() const { return m_faults.size(); }
  // The fault that this request meets; null when there is none.
  std::unique_ptr<Fault> meet(const std::string& path);

 private:
  std::list<Fault> m_faults;
};

// The answer that stands in the platform's place; of a fault that comes first.
Answer answerOf(const Fault& fault);
// Changes the platform's answer. What cannot be changed is a surprise.
void apply(const Fault& fault, PlatformCore& core, const Call& call, Answer& answer);

}  // namespace ferrolab
