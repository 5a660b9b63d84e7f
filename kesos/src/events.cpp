#include "kesos/events.h"

#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <new>

#include "deadline.h"
#include "kespal/os/thread/Native.h"
#include "keyed_waits.h"
#include "limited_waits.h"
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
/// `wait` waits once for the condition, and gives 0, ETIMEDOUT or an error number, as does this.
template <typename Wait>
int awaitSetting(const KesOsEvent& event, Wait wait) {
  const std::uint32_t generation = event.generation;
  int errnum = 0;
  while (errnum == 0 && event.generation == generation) errnum = wait();
  return errnum;
}

template <typename Wait>
int waitLocal(KesOsEvent& event, unsigned int* state, Wait wait) {
  waitResult(state, failed, 0);
  const MutexGuard guard(event.mutex);
  const int errnum = event.signalled != 0 ? 0 : awaitSetting(event, wait);
  if (errnum != 0) {
    errno = errnum;
    return waitResult(state, errnum == ETIMEDOUT ? timedOut : failed, 0);
  }
  event.signalled = 0;
  return waitResult(state, signalled, 1);
}

int waitByCalendar(KesOsEvent& event, unsigned int timeoutMs, unsigned int* state) {
  return waitLocal(event, state, [&, deadline = timespec{}]() mutable {
    if (timeoutMs == infinite) return kes::os::waitOn(event.condition, event.mutex);
    if (deadline.tv_sec == 0) setTimespec(&deadline, timeoutMs);
    return kes::os::waitUntil(event.condition, event.mutex, deadline);
  });
}

int waitBySteadyClock(KesOsEvent& event, unsigned int timeoutMs, unsigned int* state) {
  return waitLocal(event, state, [&, end = Deadline(timeoutMs)] {
    if (timeoutMs == infinite) return kes::os::waitOn(event.condition, event.mutex);
    const int errnum = kes::os::waitWithin(event.condition, event.mutex, end.rest());
    return errnum == ETIMEDOUT && !end.isOver() ? 0 : errnum;
  });
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

int KesOsEventCreateEx(KesOsEvent** out, unsigned int key, int* created) {
  bool isNew = false;
  if (createHandle(out, key, 0, 'E', initLocal, isNew) == 0) return 0;
  if (created != nullptr) *created = isNew ? 1 : 0;
  return 1;
}

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
  return waitByCalendar(*event, timeoutMs, state);
}

int KesOsEventWaitEx(KesOsEvent* event, unsigned int timeoutMs, unsigned int* state) {
  if (!isHandle(event)) return waitResult(state, failed, failWith(EINVAL));
  if (event->kind == Kind::local) return waitBySteadyClock(*event, timeoutMs, state);
  const WaitState outcome =
      waitKeyed(event->semid, timeoutMs, std::chrono::hours(1), [](int) { return false; });
  return waitResult(state, outcome, outcome == signalled ? 1 : 0);
}
