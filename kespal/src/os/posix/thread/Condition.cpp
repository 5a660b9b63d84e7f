#include "kespal/thread/Condition.h"

#include <memory>

#include "error/Report.h"

namespace kes::thread {

Condition::Condition() : borrowed_(false) {
  auto own = std::make_unique<Lock>(Normal);
  init();
  lock_ = own.release();
}

Condition::Condition(Lock& lent) : lock_(&lent), borrowed_(true) { init(); }

void Condition::init() {
  ::pthread_condattr_t attributes;
  if (const int result = ::pthread_condattr_init(&attributes); result != 0) {
    raiseAt({"src/os/posix/thread/Condition", 35, "init"}, OsError(result));
  }
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
  if (!borrowed_) delete lock_;
  if (const int result = ::pthread_cond_destroy(&condition_); result != 0) {
    OsError error(result);
    locateAt({"src/os/posix/thread/Condition", 88, "~Condition"}, error);
    reportWhat({"WARNING: Destroying condition failed:\n"}, error);
  }
}

}  // namespace kes::thread
