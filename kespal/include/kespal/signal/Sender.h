#pragma once  // since 0.1

#include <pthread.h>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes::signal {

/// Sends signals to processes and threads. Any thread may call.
class Sender {
 public:
  /// Sends a signal to a process. Raises NoSuchProcessError (ESRCH) when it does not exist, any other
  /// failure (EPERM, EINVAL) as OsError.
  static void signalProc(const int& signal, const int& pid);

  /// Sends a signal to a thread of this process, which must not have been joined. Raises OsError with the
  /// result code of pthread_kill (EINVAL; ESRCH where the system notices an ended thread).
  static void signalThread(const int& signal, const ::pthread_t& thread);
};

}  // namespace kes::signal

KES_EXPORT_END
