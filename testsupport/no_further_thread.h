// A process that can start no thread.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

namespace testsupport {

// No thread can be started in the scope: the stack that each of them is to have fits into no process.
class NoFurtherThread {
 public:
  NoFurtherThread() {
    pthread_getattr_default_np(&m_usual);
    pthread_attr_t endless = m_usual;
    EXPECT_EQ(pthread_attr_setstacksize(&endless, std::size_t{1} << 47), 0);
    EXPECT_EQ(pthread_setattr_default_np(&endless), 0);
  }
  ~NoFurtherThread() {
    pthread_setattr_default_np(&m_usual);
    pthread_attr_destroy(&m_usual);
  }
  NoFurtherThread(const NoFurtherThread&) = delete;
  NoFurtherThread& operator=(const NoFurtherThread&) = delete;

 private:
  pthread_attr_t m_usual{};
};

}  // namespace testsupport
