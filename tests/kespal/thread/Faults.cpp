#include "kespal/thread/Faults.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>

namespace kes::test {
namespace {

struct Record {
  std::atomic<int> made{0};
  std::atomic<int> error{0};
  std::atomic<bool> always{false};
  std::atomic<bool> struck{false};
  std::atomic<const std::function<void()>*> interlude{nullptr};
};

constinit std::array<Record, static_cast<std::size_t>(Call::Last)> records{};
constinit std::atomic<pid_t> pretendedThreadId{0};

Record& record(Call call) { return records[static_cast<std::size_t>(call)]; }

/// The error that this call is to fail with, or 0.
int strike(Call call) {
  Record& entry = record(call);
  entry.made.fetch_add(1);
  int error = entry.error.load();
  if (error == 0) return 0;
  if (!entry.always && !entry.error.compare_exchange_strong(error, 0)) return 0;
  entry.struck = true;
  return error;
}

int played(Call call, int result) {
  if (const auto* play = record(call).interlude.exchange(nullptr)) (*play)();
  return result;
}

}  // namespace

int made(Call call) { return record(call).made; }

Fault::Fault(Call call, int error, Times times) : call_(call) {
  record(call).struck = false;
  record(call).always = times == Always;
  record(call).error = error;
}

Fault::~Fault() { record(call_).error = 0; }

bool Fault::struck() const { return record(call_).struck; }

Interlude::Interlude(Call call, std::function<void()> play) : call_(call), play_(std::move(play)) {
  record(call_).interlude = &play_;
}

Interlude::~Interlude() { record(call_).interlude = nullptr; }

void pretendThreadId(pid_t id) { pretendedThreadId = id; }

}  // namespace kes::test

// NOLINTBEGIN(bugprone-macro-parentheses): the names and types of calls
#define FAULTY_CODE(call, name, parameters, ...)                                  \
  extern "C" int __real_##name parameters;                                        \
  extern "C" int __wrap_##name parameters {                                       \
    if (const int error = kes::test::strike(kes::test::Call::call)) return error; \
    return kes::test::played(kes::test::Call::call, __real_##name(__VA_ARGS__));  \
  }
#define FAULTY_ERRNO(call, name, parameters, ...)                                \
  extern "C" int __real_##name parameters;                                       \
  extern "C" int __wrap_##name parameters {                                      \
    if (const int error = kes::test::strike(kes::test::Call::call)) {            \
      errno = error;                                                             \
      return -1;                                                                 \
    }                                                                            \
    return kes::test::played(kes::test::Call::call, __real_##name(__VA_ARGS__)); \
  }

FAULTY_CODE(MutexAttrInit, pthread_mutexattr_init, (pthread_mutexattr_t * a), a)
FAULTY_CODE(MutexAttrSettype, pthread_mutexattr_settype, (pthread_mutexattr_t * a, int type), a, type)
FAULTY_CODE(MutexAttrDestroy, pthread_mutexattr_destroy, (pthread_mutexattr_t * a), a)
FAULTY_CODE(MutexInit, pthread_mutex_init, (pthread_mutex_t * m, const pthread_mutexattr_t* a), m, a)
FAULTY_CODE(MutexDestroy, pthread_mutex_destroy, (pthread_mutex_t * m), m)
FAULTY_CODE(MutexLock, pthread_mutex_lock, (pthread_mutex_t * m), m)
FAULTY_CODE(MutexUnlock, pthread_mutex_unlock, (pthread_mutex_t * m), m)
FAULTY_CODE(CondAttrInit, pthread_condattr_init, (pthread_condattr_t * a), a)
FAULTY_CODE(CondAttrDestroy, pthread_condattr_destroy, (pthread_condattr_t * a), a)
FAULTY_CODE(CondInit, pthread_cond_init, (pthread_cond_t * c, const pthread_condattr_t* a), c, a)
FAULTY_CODE(CondDestroy, pthread_cond_destroy, (pthread_cond_t * c), c)
FAULTY_CODE(CondSignal, pthread_cond_signal, (pthread_cond_t * c), c)
FAULTY_CODE(CondBroadcast, pthread_cond_broadcast, (pthread_cond_t * c), c)
FAULTY_CODE(CondWait, pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t* m), c, m)
FAULTY_CODE(CondTimedwait, pthread_cond_timedwait,
            (pthread_cond_t * c, pthread_mutex_t* m, const timespec* t), c, m, t)
FAULTY_CODE(AttrInit, pthread_attr_init, (pthread_attr_t * a), a)
FAULTY_CODE(AttrSetdetachstate, pthread_attr_setdetachstate, (pthread_attr_t * a, int state), a, state)
FAULTY_CODE(AttrSetstacksize, pthread_attr_setstacksize, (pthread_attr_t * a, size_t size), a, size)
FAULTY_CODE(AttrDestroy, pthread_attr_destroy, (pthread_attr_t * a), a)
FAULTY_CODE(ThreadCreate, pthread_create,
            (pthread_t * t, const pthread_attr_t* a, void* (*start)(void*), void* argument), t, a, start,
            argument)
FAULTY_CODE(ThreadJoin, pthread_join, (pthread_t t, void** result), t, result)
FAULTY_CODE(ThreadCancel, pthread_cancel, (pthread_t t), t)
FAULTY_CODE(ThreadKill, pthread_kill, (pthread_t t, int signal), t, signal)
FAULTY_CODE(ThreadSetname, pthread_setname_np, (pthread_t t, const char* name), t, name)
FAULTY_CODE(ThreadSetspecific, pthread_setspecific, (pthread_key_t key, const void* value), key, value)
FAULTY_CODE(Sigmask, pthread_sigmask, (int how, const sigset_t* set, sigset_t* old), how, set, old)
FAULTY_CODE(Sigwait, sigwait, (const sigset_t* set, int* signal), set, signal)
FAULTY_ERRNO(SchedYield, sched_yield, (), )
FAULTY_ERRNO(Sigaction, sigaction, (int signal, const struct sigaction* action, struct sigaction* old),
             signal, action, old)
FAULTY_ERRNO(Kill, kill, (pid_t pid, int signal), pid, signal)

extern "C" pid_t __real_gettid();
extern "C" pid_t __wrap_gettid() {
  if (const int error = kes::test::strike(kes::test::Call::ThreadGettid)) {
    errno = error;
    return -1;
  }
  const pid_t pretended = kes::test::pretendedThreadId;
  return pretended != 0 ? pretended : __real_gettid();
}
// NOLINTEND(bugprone-macro-parentheses)
