// The queue item that has stored privilege events sent. Internal to the processor.
#pragma once

#include "cloud/route/due_item.h"

namespace lumo {

inline constexpr char OPX_LOGGER[] = "OPX.processor";

// Each event gets an item of its own; the first one of a burst sends them all.
class OPXHandler : public DueItem {
 public:
  static constexpr char ID[] = "OPXHandler";

  // `due`: absolute, seconds since the epoch.
  explicit OPXHandler(long due) : DueItem(ID, due) {}

  // Sends what waits. Nothing escapes: a processor that cannot be had leaves the events for a later item.
  void run() override;
};

}  // namespace lumo
