#include "kesos/events.h"

#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <new>

#include "kespal/os/thread/Native.h"
#include "mutex_guard.h"
#include "semaphores.h"
#include "sync_handle.h"
#include "waits.h"

using namespace kes::kesos;

struct KesOsEvent {
  Kind kind;
  union {
    int semid;
    pthread_mutex_t mutex;
  };
  pthread_cond_t condition;
  std::int32_t signalled;
  std::uint32_t generation;  ///< number of settings; tells a waiter's wake-up from a spurious one
  std::uint32_t forks;       ///< forkCount() when it was opened
};

namespace {

bool initLocal(KesOsEvent& event) {
  if (::pthread_mutex_init(&event.mutex, nullptr) != 0) return false;
  if (::pthread_cond_init(&event.condition, nullptr) == 0) return true;
  ::pthread_mutex_destroy(&event.mutex);
  return false;
}

bool destroyLocal(KesOsEvent& event) {
  const bool condition = destroyWhenFree([&event] { return ::pthread_cond_destroy(&event.condition); });
  return destroyWhenFree(event.mutex) && condition;
}

void setLocal(KesOsEvent& event) {
  const MutexGuard guard(event.mutex);
  if (event.signalled != 0) return;
  event.signalled = 1;
  ++event.generation;
  ::pthread_cond_broadcast(&event.condition);
}

/// Waits for the next setting, which is everyone's: the flag may be cleared again by another waiter.
/// @return 0, ETIMEDOUT or an error number
int awaitSetting(KesOsEvent& event, unsigned int timeoutMs) {
  const std::uint32_t generation = event.generation;
  timespec deadline{};
  if (timeoutMs != infinite) setTimespec(&deadline, timeoutMs);
  int errnum = 0;
  while (errnum == 0 && event.generation == generation) {
    errnum = timeoutMs == infinite ? kes::os::waitOn(event.condition, event.mutex)
                                   : kes::os::waitUntil(event.condition, event.mutex, deadline);
  }
  return errnum;
}

int waitLocal(KesOsEvent& event, unsigned int timeoutMs, unsigned int* state) {
  waitResult(state, failed, 0);
  const MutexGuard guard(event.mutex);
  const int errnum = event.signalled != 0 ? 0 : awaitSetting(event, timeoutMs);
  if (errnum != 0) return waitResult(state, errnum == ETIMEDOUT ? timedOut : failed, 0);
  event.signalled = 0;
  return waitResult(state, signalled, 1);
}

// strerror_r() comes in two forms: one returns the text, the other puts it into the buffer and returns 0.
[[maybe_unused]] const char* textOf(const char* text, const char* /*buffer*/) { return text; }
[[maybe_unused]] const char* textOf(int failure, const char* buffer) { return failure == 0 ? buffer : ""; }

/// Takes no memory, which may be what was missing.
void reportFailedSet(const KesOsEvent* event, int errnum) {
  std::uint64_t thread = 0;
  kes::os::nativeThreadId(thread);
  std::array<char, 256> buffer{};
  std::fprintf(stderr, "FATAL KesOsEventSet(%p): semctl failed (%d=%s pid=%u tid=%llu)\n",
               static_cast<const void*>(event), errnum,
               textOf(::strerror_r(errnum, buffer.data(), buffer.size()), buffer.data()),
               static_cast<unsigned int>(::getpid()), static_cast<unsigned long long>(thread));
}

}  // namespace

int KesOsEventCreate(KesOsEvent** out, unsigned int key) { return createHandle(out, key, 0, 'E', initLocal); }

int KesOsEventOpen(KesOsEvent** out, unsigned int key) { return openHandle(out, key, 'E'); }

int KesOsEventClose(KesOsEvent* event) { return closeHandle(event, destroyLocal); }

int KesOsEventSet(KesOsEvent* event) {
  if (!isHandle(event)) return 0;
  if (event->kind == Kind::local) {
    setLocal(*event);
  } else if (!setValue(event->semid, 1)) {
    reportFailedSet(event, errno);
  }
  return 1;
}

int KesOsEventReset(KesOsEvent* event) {
  if (!isHandle(event)) return 0;
  if (event->kind == Kind::keyed) return addOne(event->semid) ? 1 : 0;
  const MutexGuard guard(event->mutex);
  event->signalled = 0;
  return 1;
}

int KesOsEventWait(KesOsEvent* event, unsigned int timeoutMs, unsigned int* state) {
  if (!isHandle(event)) return waitResult(state, failed, 0);
  if (event->kind == Kind::keyed) return KesOsWait(event->semid, timeoutMs, state);
  return waitLocal(*event, timeoutMs, state);
}
