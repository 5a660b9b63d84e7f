#pragma once

#include <pthread.h>

#include "kespal/NoCopy.h"

namespace kes::os {

/// Keeps the calling thread from being cancelled while the object lives. For destructors that do I/O:
/// where a cancellation unwinds the stack, one that starts in a noexcept function ends the program.
class NoCancel : NoCopy {
 public:
  NoCancel() noexcept { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~NoCancel() {
    int ignored = 0;
    ::pthread_setcancelstate(before_, &ignored);
  }

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace kes::os
