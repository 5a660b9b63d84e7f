#pragma once

#include <pthread.h>

#include <thread>

#include "support/Calls.h"

namespace kes::test {

/// Does something in a thread that is cancelled within the nth next call of this kind: the system has
/// answered, and the caller does not know it yet. The C library lets a cancellation take effect there. False
/// when there was no such call.
template <typename Action>
bool cancelledWithin(Call call, int number, Action action) {
  bool struck = false;
  const After cancelling(
      call,
      [&struck] {
        struck = true;
        ::pthread_cancel(::pthread_self());
        ::pthread_testcancel();
      },
      number);
  std::thread thread([&action] {
    action();
    ::pthread_testcancel();
  });
  thread.join();
  return struck;
}

}  // namespace kes::test
