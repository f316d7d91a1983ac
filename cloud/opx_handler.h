// The queue item that has stored privilege events sent. Internal to the processor.
#pragma once

#include <string>

#include "basalt/run_queue.h"

namespace lumo {

inline constexpr char OPX_LOGGER[] = "OPX.processor";

// Each event gets an item of its own; the first one of a burst sends them all.
class OPXHandler : public QueueAble {
 public:
  static constexpr char ID[] = "OPXHandler";

  // `due`: absolute, seconds since the epoch.
  explicit OPXHandler(long due) : m_id(ID), m_due(due) {}

  // Sends what waits. Nothing escapes: a processor that cannot be had leaves the events for a later item.
  void run() override;
  std::string getID() const override { return m_id; }
  long getTimeout() const override { return m_due; }
  bool keepQueuedItem(long t) const override { return getTimeout() < t; }

 private:
  std::string m_id;
  long m_due;
};

}  // namespace lumo
