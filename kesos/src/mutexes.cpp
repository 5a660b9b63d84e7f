#include "kesos/mutexes.h"

#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "deadline.h"
#include "holders.h"
#include "keyed_waits.h"
#include "limited_waits.h"
#include "semaphores.h"
#include "sync_handle.h"

using namespace kes::kesos;

struct KesOsMutex {
  Kind kind;
  union {
    int semid;
    pthread_mutex_t mutex;
  };
  std::uint32_t forks;  ///< forkCount() when it was opened
};

namespace {

bool initLocal(KesOsMutex& mutex) {
  pthread_mutexattr_t attributes;
  if (::pthread_mutexattr_init(&attributes) != 0) return false;
  const bool made = ::pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE) == 0 &&
                    ::pthread_mutex_init(&mutex.mutex, &attributes) == 0;
  ::pthread_mutexattr_destroy(&attributes);
  return made;
}

[[noreturn]] void refuseTimeout() {
  std::fputs("KesOsMutexWait - invalid timeout, only infinite supported for local pthread based mutexes.\n",
             stderr);
  std::exit(1);
}

WaitState lockLocal(pthread_mutex_t& mutex, unsigned int timeoutMs) {
  int errnum = timeoutMs == infinite ? ::pthread_mutex_lock(&mutex) : ::pthread_mutex_trylock(&mutex);
  if (errnum == EBUSY) {
    const Deadline end(timeoutMs);
    do {
      errnum = kes::os::lockWithin(mutex, end.rest());
    } while (errnum == ETIMEDOUT && !end.isOver());
  }
  if (errnum == 0) return signalled;
  errno = errnum;
  return errnum == ETIMEDOUT ? timedOut : failed;
}

/// In a wait the holder is looked at ten times a second.
WaitState lockKeyed(int semid, unsigned int timeoutMs) {
  if (!joinHolders()) return failed;
  const WaitState outcome = waitKeyed(semid, timeoutMs, std::chrono::milliseconds(100), lockOfDead);
  if (outcome == signalled || outcome == holderDied) noteHolder(semid);
  return outcome;
}

}  // namespace

int KesOsMutexCreate(KesOsMutex** out, unsigned int key) { return createHandle(out, key, 1, 'M', initLocal); }

int KesOsMutexCreateEx(KesOsMutex** out, unsigned int key, int* created) {
  bool isNew = false;
  if (key != 0 && !joinHolders()) return noHandle(out);
  if (createHandle(out, key, 1, 'M', initLocal, isNew) == 0) return 0;
  if (!isNew) isNew = finishForDead((*out)->semid);
  if (created != nullptr) *created = isNew ? 1 : 0;
  return 1;
}

int KesOsMutexOpen(KesOsMutex** out, unsigned int key) { return openHandle(out, key, 'M'); }

int KesOsMutexClose(KesOsMutex* mutex) {
  return closeHandle(mutex, [](KesOsMutex& local) { return destroyWhenFree(local.mutex); });
}

int KesOsMutexWait(KesOsMutex* mutex, unsigned int timeoutMs, unsigned int* state) {
  if (!isHandle(mutex)) return waitResult(state, failed, 0);
  if (mutex->kind == Kind::keyed) return KesOsWait(mutex->semid, timeoutMs, state);
  if (timeoutMs != infinite) refuseTimeout();
  return ::pthread_mutex_lock(&mutex->mutex) == 0 ? waitResult(state, signalled, 1)
                                                  : waitResult(state, failed, 0);
}

int KesOsMutexWaitEx(KesOsMutex* mutex, unsigned int timeoutMs, unsigned int* state) {
  if (!isHandle(mutex)) return waitResult(state, failed, failWith(EINVAL));
  const WaitState outcome =
      mutex->kind == Kind::keyed ? lockKeyed(mutex->semid, timeoutMs) : lockLocal(mutex->mutex, timeoutMs);
  return waitResult(state, outcome, outcome == signalled || outcome == holderDied ? 1 : 0);
}

int KesOsMutexRelease(KesOsMutex* mutex) {
  if (!isHandle(mutex)) return 0;
  const bool released =
      mutex->kind == Kind::keyed ? addOneIfZero(mutex->semid) : ::pthread_mutex_unlock(&mutex->mutex) == 0;
  return released ? 1 : 0;
}
