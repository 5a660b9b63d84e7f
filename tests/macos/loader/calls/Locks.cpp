#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <mutex>

#include "Calls.h"

namespace loader {

namespace {

/// A mutex, condition or once flag of the program: this system's object is made at its first use, since
/// the program may have initialised its own by a constant.
struct Native {
  std::atomic<std::uint64_t> mark;
  void* host;
};

constexpr std::uint64_t adopted = 0x6B65736F73746167;
constexpr std::uint32_t recursiveMutex = 0x32AAABA2, checkingMutex = 0x32AAABA1;

template <typename Host, typename Make>
Host* hostOf(Native* native, Make make) {
  static std::mutex making;
  if (native->mark.load(std::memory_order_acquire) != adopted) {
    const std::lock_guard guard(making);
    if (native->mark.load(std::memory_order_relaxed) != adopted) {
      auto* const host = new Host;
      make(host, static_cast<std::uint32_t>(native->mark.load(std::memory_order_relaxed)));
      native->host = host;
      native->mark.store(adopted, std::memory_order_release);
    }
  }
  return static_cast<Host*>(native->host);
}

int makeMutex(pthread_mutex_t* mutex, int kind) {
  pthread_mutexattr_t attributes;
  ::pthread_mutexattr_init(&attributes);
  ::pthread_mutexattr_settype(&attributes, kind);
  const int result = ::pthread_mutex_init(mutex, &attributes);
  ::pthread_mutexattr_destroy(&attributes);
  return result;
}

pthread_mutex_t* mutexOf(Native* native) {
  return hostOf<pthread_mutex_t>(native, [](pthread_mutex_t* mutex, std::uint32_t mark) {
    makeMutex(mutex, mark == recursiveMutex  ? PTHREAD_MUTEX_RECURSIVE
                     : mark == checkingMutex ? PTHREAD_MUTEX_ERRORCHECK
                                             : PTHREAD_MUTEX_NORMAL);
  });
}

pthread_cond_t* conditionOf(Native* native) {
  return hostOf<pthread_cond_t>(
      native, [](pthread_cond_t* condition, std::uint32_t) { ::pthread_cond_init(condition, nullptr); });
}

pthread_rwlock_t* rwlockOf(Native* native) {
  return hostOf<pthread_rwlock_t>(
      native, [](pthread_rwlock_t* lock, std::uint32_t) { ::pthread_rwlock_init(lock, nullptr); });
}

/// Gives the host's object back once the host has agreed to destroy it.
template <typename Host>
int forget(Native* native, Host* host, int (*destroy)(Host*)) {
  const int result = destroy(host);
  if (result == 0) {
    delete host;
    native->mark.store(0, std::memory_order_release);
  }
  return macError(result);
}

/// The program's attributes are words; the third one is the type. Types are 0 normal, 1 checking, 2
/// recursive.
constexpr int hostType[] = {PTHREAD_MUTEX_NORMAL, PTHREAD_MUTEX_ERRORCHECK, PTHREAD_MUTEX_RECURSIVE};

int attributesInit(int* attributes) {
  attributes[2] = 0;
  return 0;
}
int attributesSetType(int* attributes, int type) {
  if (type < 0 || type > 2) return EINVAL;
  attributes[2] = type;
  return 0;
}

/// Nothing is in the attributes of these that both systems have.
int sameForAll(int*) { return 0; }

int mutexInit(Native* native, const int* attributes) {
  auto* const host = new pthread_mutex_t;
  native->host = host;
  native->mark.store(adopted, std::memory_order_release);
  return macError(makeMutex(host, hostType[attributes == nullptr ? 0 : attributes[2]]));
}
int mutexLock(Native* native) { return macError(::pthread_mutex_lock(mutexOf(native))); }
int mutexTryLock(Native* native) { return macError(::pthread_mutex_trylock(mutexOf(native))); }
int mutexUnlock(Native* native) { return macError(::pthread_mutex_unlock(mutexOf(native))); }
int mutexDestroy(Native* native) { return forget(native, mutexOf(native), ::pthread_mutex_destroy); }

int conditionInit(Native* native, const void*) {
  native->mark.store(0, std::memory_order_release);
  conditionOf(native);
  return 0;
}
int conditionWait(Native* native, Native* mutex) {
  return macError(::pthread_cond_wait(conditionOf(native), mutexOf(mutex)));
}
int conditionTimedWait(Native* native, Native* mutex, const timespec* deadline) {
  return macError(::pthread_cond_timedwait(conditionOf(native), mutexOf(mutex), deadline));
}
int conditionTimedWaitRelative(Native* native, Native* mutex, const timespec* limit) {
  timespec deadline;
  ::clock_gettime(CLOCK_MONOTONIC, &deadline);
  const long nanoseconds = deadline.tv_nsec + limit->tv_nsec;
  deadline.tv_sec += limit->tv_sec + nanoseconds / 1'000'000'000;
  deadline.tv_nsec = nanoseconds % 1'000'000'000;
  return macError(::pthread_cond_clockwait(conditionOf(native), mutexOf(mutex), CLOCK_MONOTONIC, &deadline));
}
int conditionSignal(Native* native) { return macError(::pthread_cond_signal(conditionOf(native))); }
int conditionBroadcast(Native* native) { return macError(::pthread_cond_broadcast(conditionOf(native))); }
int conditionDestroy(Native* native) { return forget(native, conditionOf(native), ::pthread_cond_destroy); }

int readLock(Native* native) { return macError(::pthread_rwlock_rdlock(rwlockOf(native))); }
int writeLock(Native* native) { return macError(::pthread_rwlock_wrlock(rwlockOf(native))); }
int readWriteUnlock(Native* native) { return macError(::pthread_rwlock_unlock(rwlockOf(native))); }

int once(Native* native, void (*function)()) {
  static std::recursive_mutex running;
  if (native->mark.load(std::memory_order_acquire) == adopted) return 0;
  const std::lock_guard guard(running);
  if (native->mark.load(std::memory_order_relaxed) == adopted) return 0;
  function();
  native->mark.store(adopted, std::memory_order_release);
  return 0;
}

// Keys are words over there.
int keyCreate(std::uint64_t* key, void (*destructor)(void*)) {
  pthread_key_t host = 0;
  const int result = ::pthread_key_create(&host, destructor);
  *key = host;
  return macError(result);
}
int keyDelete(std::uint64_t key) { return macError(::pthread_key_delete(static_cast<pthread_key_t>(key))); }
void* getSpecific(std::uint64_t key) { return ::pthread_getspecific(static_cast<pthread_key_t>(key)); }
int setSpecific(std::uint64_t key, const void* value) {
  return macError(::pthread_setspecific(static_cast<pthread_key_t>(key), value));
}

// The C++ library's atomic waits sleep on an address; the time-out is in microseconds, 0 for none.
int addressWait(std::uint32_t, void* address, std::uint64_t value, std::uint32_t microseconds) {
  const timespec timeout{microseconds / 1'000'000, static_cast<long>(microseconds % 1'000'000) * 1000};
  const long result = ::syscall(SYS_futex, address, FUTEX_WAIT_PRIVATE, static_cast<std::uint32_t>(value),
                                microseconds == 0 ? nullptr : &timeout, nullptr, 0);
  return result == 0 ? 0 : -macError(errno);
}
int addressWake(std::uint32_t operation, void* address, std::uint64_t) {
  constexpr std::uint32_t all = 0x100;
  return static_cast<int>(::syscall(SYS_futex, address, FUTEX_WAKE_PRIVATE,
                                    (operation & all) != 0 ? INT_MAX : 1, nullptr, nullptr, 0));
}

const Call calls[] = {
    {"pthread_mutexattr_init", attributesInit},
    {"pthread_mutexattr_settype", attributesSetType},
    {"pthread_mutexattr_destroy", sameForAll},
    {"pthread_mutex_init", mutexInit},
    {"pthread_mutex_lock", mutexLock},
    {"pthread_mutex_trylock", mutexTryLock},
    {"pthread_mutex_unlock", mutexUnlock},
    {"pthread_mutex_destroy", mutexDestroy},
    {"pthread_condattr_init", sameForAll},
    {"pthread_condattr_destroy", sameForAll},
    {"pthread_cond_init", conditionInit},
    {"pthread_cond_wait", conditionWait},
    {"pthread_cond_timedwait", conditionTimedWait},
    {"pthread_cond_timedwait_relative_np", conditionTimedWaitRelative},
    {"pthread_cond_signal", conditionSignal},
    {"pthread_cond_broadcast", conditionBroadcast},
    {"pthread_cond_destroy", conditionDestroy},
    {"pthread_rwlock_rdlock", readLock},
    {"pthread_rwlock_wrlock", writeLock},
    {"pthread_rwlock_unlock", readWriteUnlock},
    {"pthread_once", once},
    {"pthread_key_create", keyCreate},
    {"pthread_key_delete", keyDelete},
    {"pthread_getspecific", getSpecific},
    {"pthread_setspecific", setSpecific},
    {"__ulock_wait", addressWait},
    {"__ulock_wake", addressWake},
};

}  // namespace

std::span<const Call> lockCalls() { return calls; }

}  // namespace loader
