#pragma once

#include <pthread.h>

namespace kes::sys {

/// Keeps the calling thread from being cancelled while the object lives. For destructors and reports that do
/// I/O: where a cancellation unwinds the stack, one that starts in a noexcept function ends the program.
class NoCancel {
 public:
  NoCancel() noexcept { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~NoCancel() {
    int ignored = 0;
    ::pthread_setcancelstate(before_, &ignored);
  }
  NoCancel(const NoCancel&) = delete;
  NoCancel& operator=(const NoCancel&) = delete;

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace kes::sys
