#pragma once

#include <cstdint>
#include <memory>

#include "kespal/thread/BasicThread.h"

namespace kes::thread {

/// One run of a thread: by this the library's own classes end a thread of theirs, while others may end it,
/// too, and start the next run. A value, which may outlive the thread object; it names no run when there is
/// no such thread in this process. Errors are those of BasicThread.
class Run {
 public:
  Run() = default;
  /// The present run; none when the thread is buried.
  static Run of(const BasicThread& thread);

  /// Joins, but this run only: returns at once when it is buried, whatever runs now.
  void join() const;
  /// Sends a signal to the native thread, unless it has ended: there is nothing to wake then. Gives the
  /// result code of pthread_kill.
  int wake(int signal) const;
  /// Whether the calling thread is this one.
  bool isCaller() const;

 private:
  std::shared_ptr<BasicThread::Control> control_;
  std::uint64_t number_ = 0;  ///< how often the thread had been buried
};

}  // namespace kes::thread
