// The queue item that renews what is known of the connectors. Internal to the locator.
#pragma once

#include "cloud/route/due_item.h"

namespace lumo {

// At most one is queued at a time, the earliest.
class CloudConnectorsRefresh : public DueItem {
 public:
  static constexpr char ID[] = "CloudConnectorsRefresh";

  // `due`: absolute, seconds since the epoch.
  explicit CloudConnectorsRefresh(long due) : DueItem(ID, due) {}

  // Searches, and queues the next refresh.
  void run() override;
  bool dedupMe() const override { return true; }
};

}  // namespace lumo
