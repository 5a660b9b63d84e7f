#include "kespal/RuntimeCalls.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>

namespace kes::test {
namespace {

struct Refusal {
  std::atomic<int> left{-1};  ///< how many calls may still succeed; -1: all
  std::atomic<int> code{0};
};

constinit std::array<Refusal, RuntimeCalls::Last> refusals{};
constinit std::atomic<bool> shown{false};

/// The code that this call is to be refused with, or 0.
int refusalOf(RuntimeCalls::Call call) {
  Refusal& refusal = refusals[call];
  if (refusal.left == 0) return refusal.code;
  if (refusal.left > 0) --refusal.left;
  return 0;
}

void say(const std::string& call) {
  if (!shown || ::gettid() != ::getpid()) return;
  const std::string text = ' ' + call;
  if (::write(STDOUT_FILENO, text.data(), text.size()) == -1) shown = false;
}

}  // namespace

void RuntimeCalls::show() { shown = true; }

void RuntimeCalls::refuse(Call call, int code, int after) {
  refusals[call].code = code;
  refusals[call].left = after;
}

void RuntimeCalls::refuseNothing() {
  for (Refusal& refusal : refusals) refusal.left = -1;
}

}  // namespace kes::test

using kes::test::RuntimeCalls;

extern "C" {

int __real_pthread_sigmask(int how, const sigset_t* set, sigset_t* before);
int __wrap_pthread_sigmask(int how, const sigset_t* set, sigset_t* before) {
  if (set != nullptr) {
    const bool pipe = sigismember(set, SIGPIPE) == 1;
    if (how == SIG_BLOCK && pipe) kes::test::say("block");
    if (how == SIG_SETMASK && !pipe) kes::test::say("restore");
  }
  const int code = kes::test::refusalOf(RuntimeCalls::Sigmask);
  return code != 0 ? code : __real_pthread_sigmask(how, set, before);
}

int __real_pthread_create(pthread_t* thread, const pthread_attr_t* how, void* (*body)(void*), void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* how, void* (*body)(void*),
                          void* argument) {
  kes::test::say("thread");
  const int code = kes::test::refusalOf(RuntimeCalls::ThreadCreate);
  return code != 0 ? code : __real_pthread_create(thread, how, body, argument);
}

int __real_pthread_kill(pthread_t thread, int signal);
int __wrap_pthread_kill(pthread_t thread, int signal) {
  const int code = kes::test::refusalOf(RuntimeCalls::ThreadKill);
  return code != 0 ? code : __real_pthread_kill(thread, signal);
}

int __real_pthread_join(pthread_t thread, void** result);
int __wrap_pthread_join(pthread_t thread, void** result) {
  kes::test::say("join");
  return __real_pthread_join(thread, result);
}

int __real_kill(pid_t pid, int signal);
int __wrap_kill(pid_t pid, int signal) {
  kes::test::say("kill");
  errno = kes::test::refusalOf(RuntimeCalls::Kill);
  return errno != 0 ? -1 : __real_kill(pid, signal);
}

int __real_open(const char* path, int flags, mode_t mode);
int __wrap_open(const char* path, int flags, mode_t mode) {
  kes::test::say(path);
  errno = kes::test::refusalOf(RuntimeCalls::Open);
  return errno != 0 ? -1 : __real_open(path, flags, mode);
}

int __real_close(int fd);
int __wrap_close(int fd) {
  kes::test::say("close");
  return __real_close(fd);
}

char* __real_getenv(const char* name);
char* __wrap_getenv(const char* name) {
  if (std::string(name).starts_with("KES")) kes::test::say(name);
  return __real_getenv(name);
}

char* __real_setlocale(int category, const char* name);
char* __wrap_setlocale(int category, const char* name) {
  kes::test::say("setlocale");
  return __real_setlocale(category, name);
}

int __real_getlogin_r(char* name, std::size_t size);
int __wrap_getlogin_r(char* name, std::size_t size) {
  kes::test::say("getlogin_r");
  return __real_getlogin_r(name, size);
}

int __real_clock_gettime(clockid_t id, timespec* now);
int __wrap_clock_gettime(clockid_t id, timespec* now) {
  kes::test::say("clock_gettime");
  errno = kes::test::refusalOf(RuntimeCalls::ClockGettime);
  return errno != 0 ? -1 : __real_clock_gettime(id, now);
}

void __real_tzset();
void __wrap_tzset() {
  kes::test::say("tzset");
  __real_tzset();
}

}  // extern "C"
