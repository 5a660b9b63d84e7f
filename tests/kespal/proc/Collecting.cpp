#include "kespal/proc/Collecting.h"

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>

#include "kespal/time/Clock.h"
#include "support/NoMemory.h"

namespace kes::test {

std::vector<int> waitFailures;
std::atomic<int> looks{0}, childlessLooks{0};
std::atomic<bool> forkFails{false};
std::atomic<int> forks{0}, clones{0}, cloneError{0};
std::atomic<int> threadError{0}, joinError{0};
std::atomic<const Gate*> startGate{nullptr};

namespace {

struct HeldStart {
  const Gate& gate;
  void* (*start)(void*);
  void* argument;
};

void* startBehindGate(void* held) {
  const auto [gate, start, argument] = *std::unique_ptr<HeldStart>(static_cast<HeldStart*>(held));
  gate.pass();
  return start(argument);
}

}  // namespace

}  // namespace kes::test

using namespace kes::test;

extern "C" int __real_waitid(idtype_t, id_t, siginfo_t*, int);
extern "C" int __wrap_waitid(idtype_t type, id_t id, siginfo_t* info, int options) {  // NOLINT
  if (!waitFailures.empty()) {
    errno = waitFailures.front();
    waitFailures.erase(waitFailures.begin());
    return -1;
  }
  ++looks;
  const int result = __real_waitid(type, id, info, options);
  if (result == -1 && errno == ECHILD) ++childlessLooks;
  return result;
}

extern "C" pid_t __real_fork();
extern "C" pid_t __wrap_fork() {
  ++forks;
  if (!forkFails) return __real_fork();
  errno = EAGAIN;
  return -1;
}

extern "C" int __real_clone(int (*)(void*), void*, int, void*, ...);
extern "C" int __wrap_clone(int (*body)(void*), void* stack, int flags, void* argument, ...) {
  ++clones;
  if (cloneError == 0) return __real_clone(body, stack, flags, argument);
  errno = cloneError;
  return -1;
}

extern "C" int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                     void* (*start)(void*), void* argument) {
  if (const int error = threadError.exchange(0)) return error;
  if (const Gate* gate = startGate.exchange(nullptr)) {
    argument = new HeldStart{*gate, start, argument};
    start = &startBehindGate;
  }
  return __real_pthread_create(thread, attributes, start, argument);
}

extern "C" int __real_pthread_join(pthread_t, void**);
extern "C" int __wrap_pthread_join(pthread_t thread, void** result) {
  if (const int error = joinError.exchange(0)) return error;
  return __real_pthread_join(thread, result);
}

namespace kes::test {

Collecting::Collecting() {
  time::ClockBase::init();
  shepherd.start();
}

Collecting::~Collecting() { shepherd.stop(); }

pid_t Collecting::add(std::optional<int> code, bool starving) {
  const proc::Shepherd::Guard guard(shepherd.condition());
  const pid_t pid = __real_fork();
  if (pid == 0) {
    if (code) ::_exit(*code);
    for (;;) ::pause();
  }
  std::optional<NoMemory> noMemory;
  if (starving) noMemory.emplace();
  shepherd.addNoLock(pid, nullptr);
  return pid;
}

/// The thread with this name, as far as the system keeps it; 0 when there is none.
std::uint64_t threadNamed(const std::string& name) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string comm;
    std::getline(std::ifstream(task.path() / "comm"), comm);
    if (comm == name) return std::stoull(task.path().filename());
  }
  return 0;
}

}  // namespace kes::test
