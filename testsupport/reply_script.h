// The replies of a server that answers by a script.
#pragma once

#include <deque>
#include <mutex>
#include <vector>

#include "testsupport/http_server.h"

namespace testsupport {

// Any thread.
class ReplyScript {
 public:
  // What comes next, in place of what an earlier script has left.
  void set(const std::vector<HttpReply>& replies) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_replies.assign(replies.begin(), replies.end());
  }
  // Past the end it is a status 500.
  HttpReply next() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_replies.empty()) return httpReply("500 Internal Server Error");
    const HttpReply reply = m_replies.front();
    m_replies.pop_front();
    return reply;
  }
  bool isOver() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_replies.empty();
  }

 private:
  std::mutex m_mutex;
  std::deque<HttpReply> m_replies;
};

}  // namespace testsupport
