// A queue item with an ID and a due time. Internal.
#pragma once

#include <string>
#include <utility>

#include "basalt/run_queue.h"

namespace lumo {

class DueItem : public QueueAble {
 public:
  std::string getID() const override { return m_id; }
  long getTimeout() const override { return m_due; }
  // Where only one of an ID may wait: an earlier one stays.
  bool keepQueuedItem(long t) const override { return getTimeout() < t; }

 protected:
  // `due`: absolute, seconds since the epoch.
  DueItem(std::string id, long due) : m_id(std::move(id)), m_due(due) {}

 private:
  std::string m_id;
  long m_due;
};

}  // namespace lumo
