#include "kespal/thread/Lock.h"

#include "error/Report.h"

namespace kes::thread {

LockBase::LockBase(LockKind kind) {
  ::pthread_mutexattr_t checking;
  const ::pthread_mutexattr_t* attributes = nullptr;
  if (kind != Normal) {
    if (const int result = ::pthread_mutexattr_init(&checking); result != 0) {
      raiseAt({"src/os/posix/thread/Lock", 51, "LockBase"}, OsError(result));
    }
    const int type = kind == Recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_ERRORCHECK;
    if (const int result = ::pthread_mutexattr_settype(&checking, type); result != 0) {
      raiseAt({"src/os/posix/thread/Lock", 64, "LockBase"}, OsError(result));
    }
    attributes = &checking;
  }
  const int result = ::pthread_mutex_init(&mutex_, attributes);
  if (attributes != nullptr) ::pthread_mutexattr_destroy(&checking);
  if (result != 0) raiseAt({"src/os/posix/thread/Lock", 77, "LockBase"}, OsError(result));
}

LockBase::~LockBase() {
  if (const int result = ::pthread_mutex_destroy(&mutex_); result != 0) {
    OsError error(result);
    locateAt({"src/os/posix/thread/Lock", 88, "~LockBase"}, error);
    reportWhat({"WARNING: Destroying mutex failed:\n"}, error);
  }
}

}  // namespace kes::thread
