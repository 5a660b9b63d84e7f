#pragma once

#include <fcntl.h>
#include <pthread.h>
#include <sys/types.h>

#include "sys/NoCancel.h"

namespace kes::fs {

/// Opens what lets nobody wait: a directory, a file that this makes, or what O_NONBLOCK is for; closed on
/// exec. A cancellation takes effect before it or waits. The C library would let one take effect while the
/// system is at it, and then nobody has the descriptor, nor owns the file.
inline int openAtOnce(int directory, const char* name, int flags, mode_t mode = 0) {
  ::pthread_testcancel();
  const sys::NoCancel untilOwned;
  return ::openat(directory, name, flags | O_CLOEXEC, mode);
}

}  // namespace kes::fs
