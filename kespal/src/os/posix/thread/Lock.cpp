#include "kespal/thread/Lock.h"

#include "error/Report.h"

namespace kes::thread {

LockBase::LockBase(LockKind kind) {
  ::pthread_mutexattr_t checking;
  const ::pthread_mutexattr_t* attributes = nullptr;
  if (kind != Normal) {
    checkCode({"src/os/posix/thread/Lock", 51, "LockBase"}, ::pthread_mutexattr_init(&checking));
    const int type = kind == Recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_ERRORCHECK;
    checkCode({"src/os/posix/thread/Lock", 64, "LockBase"}, ::pthread_mutexattr_settype(&checking, type));
    attributes = &checking;
  }
  const int result = ::pthread_mutex_init(&mutex_, attributes);
  if (attributes != nullptr) ::pthread_mutexattr_destroy(&checking);
  checkCode({"src/os/posix/thread/Lock", 77, "LockBase"}, result);
}

LockBase::~LockBase() {
  if (const int result = ::pthread_mutex_destroy(&mutex_); result != 0) {
    OsError error(result);
    locateAt({"src/os/posix/thread/Lock", 88, "~LockBase"}, error);
    reportWhat({"WARNING: Destroying mutex failed:\n"}, error);
  }
}

}  // namespace kes::thread
