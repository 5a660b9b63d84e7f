#include "kespal/thread/Condition.h"

#include <new>

#include "error/Report.h"
#include "thread/PerProcess.h"

namespace kes::thread {

Condition::Condition() : own_(std::make_unique<Lock>(Normal)), lock_(own_.get()) { init(); }

Condition::Condition(Lock& lent) : lock_(&lent) { init(); }

void Condition::init() {
  forks_ = ProcessBound::askDepth();
  ::pthread_condattr_t attributes;
  checkCode({"src/os/posix/thread/Condition", 35, "init"}, ::pthread_condattr_init(&attributes));
  if (const int result = ::pthread_cond_init(&condition_, &attributes); result != 0) {
    ::pthread_condattr_destroy(&attributes);
    raiseAt({"src/os/posix/thread/Condition", 53, "init"}, OsError(result));
  }
  if (const int result = ::pthread_condattr_destroy(&attributes); result != 0) {
    ::pthread_cond_destroy(&condition_);
    raiseAt({"src/os/posix/thread/Condition", 58, "init"}, OsError(result));
  }
}

Condition::~Condition() {
  if (forks_ != ProcessBound::askDepth()) {
    leaveAlone();
    return;
  }
  own_.reset();
  if (const int result = ::pthread_cond_destroy(&condition_); result != 0) {
    OsError error(result);
    locateAt({"src/os/posix/thread/Condition", 88, "~Condition"}, error);
    reportWhat({"WARNING: Destroying condition failed:\n"}, error);
  }
}

/// Who waited at a fork stayed with the parent: the system would wait for him here, and has him as a user of
/// the lock. Neither holds anything but memory.
void Condition::leaveAlone() noexcept { ::operator delete(own_.release()); }

}  // namespace kes::thread
