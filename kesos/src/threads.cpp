#include "kesos/threads.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "kesos/time.h"
#include "kespal/os/thread/Native.h"

namespace {

enum State : unsigned int { notRunning = 0, running = 1, stopRequested = 3 };

constexpr std::size_t largestDefaultStack = 0x40000;

bool isSet(const pthread_t* thread) { return thread != nullptr && *thread != pthread_t{}; }

unsigned int load(const unsigned int* state) { return __atomic_load_n(state, __ATOMIC_ACQUIRE); }

/// Changes the state word from `from` to `to`; false, with `from` what it was, when another was faster.
bool change(unsigned int* state, unsigned int& from, unsigned int to) {
  return __atomic_compare_exchange_n(state, &from, to, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

bool setStack(pthread_attr_t& attributes, std::size_t size) {
  if (size != 0) return ::pthread_attr_setstacksize(&attributes, size) == 0;
  return ::pthread_attr_getstacksize(&attributes, &size) == 0 &&
         ::pthread_attr_setstacksize(&attributes, std::min(size, largestDefaultStack)) == 0;
}

bool beginDetached(pthread_t* thread, KesOsThreadRoutine start, std::size_t stackSize, void* arg) {
  pthread_attr_t attributes;
  if (::pthread_attr_init(&attributes) != 0) return false;
  const bool begun = setStack(attributes, stackSize) &&
                     ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED) == 0 &&
                     ::pthread_create(thread, &attributes, start, arg) == 0;
  ::pthread_attr_destroy(&attributes);
  return begun;
}

/// Asks the thread to stop; false when it does not run.
bool requestStop(unsigned int* state) {
  unsigned int seen = load(state);
  while (seen != notRunning) {
    if (change(state, seen, stopRequested)) return true;
  }
  return false;
}

bool awaitStop(const unsigned int* state, unsigned int tries) {
  if (tries == 0) tries = std::numeric_limits<unsigned int>::max();
  for (; tries > 0; --tries) {
    KesOsSleep(100);
    if (load(state) != stopRequested) return true;
  }
  return false;
}

}  // namespace

int KesOsThreadBegin(pthread_t* thread, KesOsThreadRoutine start, unsigned int stackSize, void* arg) {
  if (thread == nullptr) return 0;
  if (start != nullptr && beginDetached(thread, start, stackSize, arg)) return 1;
  *thread = pthread_t{};
  return 0;
}

// NOLINTNEXTLINE(performance-no-int-to-ptr): the value of a thread is a pointer
void KesOsThreadEnd(void) { ::pthread_exit(reinterpret_cast<void*>(std::uintptr_t{1})); }

void KesOsThreadCancel(pthread_t* thread) {
  if (isSet(thread) && ::pthread_cancel(*thread) == 0) *thread = pthread_t{};
}

int KesOsThreadStart(pthread_t* out, unsigned int* state, KesOsThreadRoutine start, void* arg) {
  unsigned int seen = notRunning;
  if (state != nullptr && !change(state, seen, running)) return 1;
  pthread_t thread{};
  if (KesOsThreadBegin(&thread, start, 0, arg) == 0) {
    if (state != nullptr) __atomic_store_n(state, notRunning, __ATOMIC_RELEASE);
    return 0;
  }
  if (out != nullptr) *out = thread;
  return 1;
}

bool KesOsThreadStop(pthread_t* thread, unsigned int* state, unsigned int tries, KesOsStopCallback callback,
                     void* arg) {
  if (isSet(thread)) {
    KesOsThreadCancel(thread);
    if (state != nullptr) __atomic_store_n(state, notRunning, __ATOMIC_RELEASE);
    return true;
  }
  if (state == nullptr || !requestStop(state)) return true;
  if (callback != nullptr) {
    callback(arg);
    if (load(state) != stopRequested) return true;
  }
  return awaitStop(state, tries);
}

bool KesOsThreadSetName(const char* name) { return name != nullptr && kes::os::nameThread(name) == 0; }

int KesOsCallOnce(void (*fn)(void)) {
  static pthread_once_t control = PTHREAD_ONCE_INIT;
  return fn != nullptr && ::pthread_once(&control, fn) == 0 ? 1 : 0;
}
