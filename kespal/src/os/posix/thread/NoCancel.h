#pragma once

#include <pthread.h>

#include "kespal/NoCopy.h"

namespace kes::os {

/// Puts a cancellation of the calling thread off until the end of the scope. Stands in front of output in
/// destructors: a cancellation that unwinds the stack from within one would end the process.
class NoCancel : NoCopy {
 public:
  NoCancel() noexcept { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~NoCancel() { ::pthread_setcancelstate(before_, nullptr); }

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace kes::os
