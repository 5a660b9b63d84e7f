#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>

#include "Calls.h"
#include "Processor.h"

namespace loader {

namespace {

struct Cleanup {
  void (*routine)(void*);
  void* argument;
  Cleanup* next;
};

/// A thread of the program. The first two fields are the platform's: code that is compiled into the program
/// keeps its cleanup handlers there. Never freed, as the program may ask for a thread that has ended.
struct Thread {
  std::uint64_t signature;
  Cleanup* cleanups;
  pthread_t host;
  void* (*function)(void*);
  void* argument;
};

/// Runs first of all destructors of a thread's data. A cancelled thread leaves everything else on its stack
/// as it is: this system's unwinder does not know the program's frames and stops at the first.
void runCleanups(void* raw) {
  auto* const thread = static_cast<Thread*>(raw);
  while (const Cleanup* const next = thread->cleanups) {
    thread->cleanups = next->next;
    next->routine(next->argument);
  }
}

pthread_key_t makeKey() {
  pthread_key_t key = 0;
  ::pthread_key_create(&key, runCleanups);
  return key;
}
const pthread_key_t ownKey = makeKey();

void adopt(Thread* thread) {
  thread->host = ::pthread_self();
  ::pthread_setspecific(ownKey, thread);
}

Thread* self() {
  auto* thread = static_cast<Thread*>(::pthread_getspecific(ownKey));
  if (thread == nullptr) adopt(thread = new Thread{});
  return thread;
}

void* enter(void* raw) {
  auto* const thread = static_cast<Thread*>(raw);
  adopt(thread);
  return thread->function(thread->argument);
}

int create(Thread** thread, const pthread_attr_t* attributes, void* (*function)(void*), void* argument) {
  auto* const made = new Thread{0, nullptr, 0, function, argument};
  pthread_t host = 0;
  *thread = made;
  const int result = ::pthread_create(&host, attributes, enter, made);
  if (result == 0) __atomic_store_n(&made->host, host, __ATOMIC_RELAXED);
  return macError(result);
}

int join(Thread* thread, void** result) {
  void* const macCancelled = reinterpret_cast<void*>(1);
  const int error = ::pthread_join(thread->host, result);
  if (error == 0 && result != nullptr && *result == PTHREAD_CANCELED) *result = macCancelled;
  return macError(error);
}
int detach(Thread* thread) { return macError(::pthread_detach(thread->host)); }
int cancel(Thread* thread) { return macError(::pthread_cancel(thread->host)); }
int kill(Thread* thread, int mac) { return macError(::pthread_kill(thread->host, hostSignal(mac))); }
int equal(const Thread* left, const Thread* right) { return left == right ? 1 : 0; }

int attributesOf(Thread* thread, pthread_attr_t* attributes) {
  return macError(::pthread_getattr_np(thread->host, attributes));
}

/// The platform takes whole pages, fewer than this system does, which differs from processor to processor.
int setStackSize(pthread_attr_t* attributes, std::size_t size) {
  const auto hostMinimum = static_cast<std::size_t>(::sysconf(_SC_THREAD_STACK_MIN));
  if (size < macSmallestStack || size % macPage != 0) return EINVAL;
  return ::pthread_attr_setstacksize(attributes, std::max(size, hostMinimum));
}

int setDetached(pthread_attr_t* attributes, int mac) {
  constexpr int macJoinable = 1, macDetached = 2;
  if (mac != macJoinable && mac != macDetached) return EINVAL;
  return ::pthread_attr_setdetachstate(
      attributes, mac == macDetached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
}

int setCancelState(int mac, int* old) {
  constexpr int macDisabled = 0, macEnabled = 1;
  if (mac != macDisabled && mac != macEnabled) return EINVAL;
  int before = 0;
  const int result =
      ::pthread_setcancelstate(mac == macEnabled ? PTHREAD_CANCEL_ENABLE : PTHREAD_CANCEL_DISABLE, &before);
  if (old != nullptr) *old = before == PTHREAD_CANCEL_ENABLE ? macEnabled : macDisabled;
  return result;
}

int threadId(Thread* thread, std::uint64_t* id) {
  if (id == nullptr || (thread != nullptr && thread != self())) return EINVAL;
  *id = static_cast<std::uint64_t>(::gettid());
  return 0;
}
std::uint32_t machThread(const Thread* thread) {
  return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(thread) >> 4);
}

// The platform keeps 63 bytes of a name and refuses longer ones; this system keeps 15.
int setName(const char* name) {
  const std::string text = name;
  if (text.size() > 63) return macError(ENAMETOOLONG);
  return macError(::pthread_setname_np(::pthread_self(), text.substr(0, 15).c_str()));
}

int nameOf(Thread* thread, char* name, std::size_t size) {
  return macError(::pthread_getname_np(thread->host, name, size));
}

int atFork(void (*prepare)(), void (*parent)(), void (*child)()) {
  return macError(::pthread_atfork(prepare, parent, child));
}

const Call calls[] = {
    {"pthread_atfork", atFork},
    {"pthread_self", self},
    {"pthread_equal", equal},
    {"pthread_create", create},
    {"pthread_join", join},
    {"pthread_detach", detach},
    {"pthread_cancel", cancel},
    {"pthread_kill", kill},
    {"pthread_attr_setdetachstate", setDetached},
    {"pthread_attr_setstacksize", setStackSize},
    {"pthread_getattr_np", attributesOf},
    {"pthread_setcancelstate", setCancelState},
    {"pthread_threadid_np", threadId},
    {"pthread_mach_thread_np", machThread},
    {"pthread_setname_np", setName},
    {"pthread_getname_np", nameOf},
};

}  // namespace

std::span<const Call> threadCalls() { return calls; }

}  // namespace loader
