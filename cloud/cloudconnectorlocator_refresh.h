// The queue item that renews what is known of the connectors. Internal to the locator.
#pragma once

#include <string>

#include "basalt/run_queue.h"

namespace lumo {

// At most one is queued at a time, the earliest.
class CloudConnectorsRefresh : public QueueAble {
 public:
  static constexpr char ID[] = "CloudConnectorsRefresh";

  // `due`: absolute, seconds since the epoch.
  explicit CloudConnectorsRefresh(long due) : m_id(ID), m_due(due) {}

  // Searches, and queues the next refresh.
  void run() override;
  bool dedupMe() const override { return true; }
  std::string getID() const override { return m_id; }
  long getTimeout() const override { return m_due; }
  // An earlier one stays.
  bool keepQueuedItem(long t) const override { return getTimeout() < t; }

 private:
  std::string m_id;
  long m_due;
};

}  // namespace lumo
