#include "kesos/IpcFaults.h"

#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <ctime>
#include <utility>

namespace {

using kes::test::IpcCall;

struct Refusal {
  IpcCall call;
  int error;
  std::optional<int> command;
  int skipped;
};

thread_local std::optional<Refusal> refusal;
thread_local std::optional<std::pair<IpcCall, std::function<void()>>> interlude;
std::array<std::atomic<int>, 8> counts;
thread_local void (*nap)() = nullptr;

/// Does what was to happen before the call, and counts it; whether it is refused, with errno set.
bool refused(IpcCall call, std::optional<int> command = {}) {
  if (interlude && interlude->first == call) std::exchange(interlude, std::nullopt)->second();
  ++counts[static_cast<std::size_t>(call)];
  if (!refusal || refusal->call != call || (refusal->command && refusal->command != command)) return false;
  if (refusal->skipped-- > 0) return false;
  errno = refusal->error;
  refusal.reset();
  return true;
}

}  // namespace

namespace kes::test {

void refuse(IpcCall call, int error, std::optional<int> command, int skipped) {
  refusal = {call, error, command, skipped};
}
void refuseNothing() {
  refusal.reset();
  interlude.reset();
}
int countOf(IpcCall call) { return counts[static_cast<std::size_t>(call)]; }
void beforeNext(IpcCall call, std::function<void()> action) { interlude = {call, std::move(action)}; }
void duringNextNap(void (*action)()) { nap = action; }

}  // namespace kes::test

extern "C" {

int __real_semget(key_t key, int count, int flags);
int __wrap_semget(key_t key, int count, int flags) {
  return refused(IpcCall::semget) ? -1 : __real_semget(key, count, flags);
}

int __real_nanosleep(const timespec* time, timespec* rest);
int __wrap_nanosleep(const timespec* time, timespec* rest) {
  if (nap != nullptr) std::exchange(nap, nullptr)();
  return __real_nanosleep(time, rest);
}

int __real_semop(int id, sembuf* operations, std::size_t count);
int __wrap_semop(int id, sembuf* operations, std::size_t count) {
  return refused(IpcCall::semop) ? -1 : __real_semop(id, operations, count);
}

int __real_semctl(int id, int number, int command, ...);
int __wrap_semctl(int id, int number, int command, ...) {
  std::uintptr_t argument = 0;
  if (command != GETVAL && command != GETNCNT && command != IPC_RMID) {
    va_list arguments;
    va_start(arguments, command);
    argument = va_arg(arguments, std::uintptr_t);
    va_end(arguments);
  }
  return refused(IpcCall::semctl, command) ? -1 : __real_semctl(id, number, command, argument);
}

int __real_shmget(key_t key, std::size_t size, int flags);
int __wrap_shmget(key_t key, std::size_t size, int flags) {
  return refused(IpcCall::shmget) ? -1 : __real_shmget(key, size, flags);
}

void* __real_shmat(int id, const void* address, int flags);
void* __wrap_shmat(int id, const void* address, int flags) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): what a refused call gives
  return refused(IpcCall::shmat) ? reinterpret_cast<void*>(-1) : __real_shmat(id, address, flags);
}

int __real_shmctl(int id, int command, shmid_ds* state);
int __wrap_shmctl(int id, int command, shmid_ds* state) {
  return refused(IpcCall::shmctl, command) ? -1 : __real_shmctl(id, command, state);
}

int __real_shmdt(const void* address);
int __wrap_shmdt(const void* address) { return refused(IpcCall::shmdt) ? -1 : __real_shmdt(address); }

int __real_madvise(void* address, std::size_t size, int advice);
int __wrap_madvise(void* address, std::size_t size, int advice) {
  return refused(IpcCall::madvise, advice) ? -1 : __real_madvise(address, size, advice);
}
}
