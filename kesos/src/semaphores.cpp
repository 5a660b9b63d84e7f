#include "semaphores.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "ipc.h"
#include "kesos/ipc.h"
#include "kesos/time.h"
#include "kespal/os/thread/Native.h"
#include "mutex_guard.h"
#include "paths.h"
#include "sys/KeepErrno.h"
#include "usage_table.h"
#include "waits.h"

namespace {

using kes::kesos::SemaphoreArgument;
using kes::kesos::Use;

bool removeSemaphore(int semid) { return ::semctl(semid, 0, IPC_RMID) == 0; }

bool setSemaphoreOwner(int semid) {
  if (!kes::kesos::ownerWanted()) return true;
  semid_ds state{};
  kes::kesos::fillOwner(state.sem_perm);
  SemaphoreArgument argument{};
  argument.state = &state;
  return ::semctl(semid, 0, IPC_SET, argument) == 0;
}

bool countUse(int semid, bool keyed) {
  if (!kes::kesos::joinUsage()) return false;
  kes::kesos::addUse(semid, keyed);
  return true;
}

enum class Outcome { failed, gone, counted, noTable };

Outcome failure() { return kes::kesos::isGone(errno) ? Outcome::gone : Outcome::failed; }

/// A process that did not see it counted may have removed the semaphore: then the count is taken back.
Outcome lookAgain(int semid) {
  if (KesOsSemaphoreVal(semid) >= 0 || !kes::kesos::isGone(errno)) return Outcome::counted;
  kes::kesos::dropReference(semid);
  kes::kesos::dropHandle();
  errno = EIDRM;
  return Outcome::gone;
}

Outcome openAndCount(int& semid, key_t key) {
  semid = ::semget(key, 0, 0);
  if (semid < 0) return failure();
  return countUse(semid, true) ? lookAgain(semid) : Outcome::noTable;
}

/// Takes a new semaphore into use. Who opened it meanwhile may have closed it, too: then it is gone.
Outcome prepareAndCount(int semid, bool keyed, int initialValue) {
  if (!setSemaphoreOwner(semid) || !kes::kesos::setValue(semid, initialValue)) return failure();
  return countUse(semid, keyed) ? lookAgain(semid) : Outcome::failed;
}

Outcome createAndCount(int& semid, key_t key, int initialValue, bool& isNew) {
  const bool keyed = key != IPC_PRIVATE;
  semid = ::semget(key, 1, keyed ? ipc_default_mode | IPC_CREAT | IPC_EXCL : ipc_default_mode);
  isNew = semid >= 0;
  if (!isNew) return errno == EEXIST ? openAndCount(semid, key) : Outcome::failed;
  const Outcome outcome = prepareAndCount(semid, keyed, initialValue);
  const kes::sys::KeepErrno whyNotCounted;
  if (outcome != Outcome::counted) removeSemaphore(semid);
  return outcome;
}

/// Tries again with the table attached all the while: a semaphore is counted sooner then, and its users who
/// come and go have less time to remove it before.
Outcome createAgain(int& semid, key_t key, int initialValue, bool& isNew) {
  const bool held = kes::kesos::holdUsage();
  Outcome outcome = Outcome::gone;
  for (int tries = 1; outcome == Outcome::gone && tries < kes::kesos::mostTries; ++tries) {
    outcome = createAndCount(semid, key, initialValue, isNew);
  }
  const kes::sys::KeepErrno whyNotCounted;
  if (held) kes::kesos::leaveUsage();
  return outcome;
}

/// Holds the table's mutex from the look for a semaphore until it is counted: no other thread of this process
/// can remove it in between.
template <typename Step>
Outcome undisturbed(Step step) {
  const kes::kesos::MutexGuard guard(kes::kesos::usageMutex());
  return step();
}

void reportMissingTable(int semid, char tag) {
  const kes::sys::KeepErrno whyMissing;
  std::uint64_t thread = 0;
  kes::os::nativeThreadId(thread);
  std::fprintf(stderr, "FATAL KesOsOpen%c(%d): pstLog is not created (pid=%d tid=%llu)\n", tag, semid,
               static_cast<int>(::getpid()), static_cast<unsigned long long>(thread));
}

int resultOf(Outcome outcome, int semid, char tag) {
  if (outcome == Outcome::noTable) reportMissingTable(semid, tag);
  return outcome == Outcome::counted ? 1 : 0;
}

[[noreturn]] void refuseTimeout(unsigned int timeoutMs) {
  std::printf("Timeout in Events not supported for Darwin (your timeout=%d)\n", static_cast<int>(timeoutMs));
  std::exit(0);
}

/// Takes one from the semaphore; across signals, unless the process is shutting down.
bool lower(int semid, bool wait) {
  sembuf operation{0, -1, static_cast<short>(wait ? 0 : IPC_NOWAIT)};
  while (::semop(semid, &operation, 1) != 0) {
    if (errno != EINTR || kes::kesos::shuttingDown()) return false;
    KesOsSleep(50);
    if (kes::kesos::shuttingDown()) return kes::kesos::failWith(EINTR) != 0;
  }
  return true;
}

}  // namespace

int KesOsCreate(int* semid, key_t key, int initialValue, char tag) {
  bool isNew = false;
  return kes::kesos::createSemaphore(*semid, key, initialValue, tag, isNew);
}

int KesOsOpen(int* semid, key_t key, char tag) {
  if (key == IPC_PRIVATE) return 0;
  const Outcome outcome = undisturbed([=] { return openAndCount(*semid, key); });
  return resultOf(outcome, *semid, tag);
}

int KesOsClose(int semid) {
  if (semid == -1) return 1;
  const kes::kesos::MutexGuard guard(kes::kesos::usageMutex());
  const Use use = kes::kesos::dropReference(semid);
  if (use != Use::shared && !removeSemaphore(semid) && use == Use::untracked) return 0;
  kes::kesos::dropHandle();
  return 1;
}

int KesOsWait(int semid, unsigned int timeoutMs, unsigned int* state) {
  using namespace kes::kesos;
  if (timeoutMs != 0 && timeoutMs != infinite) refuseTimeout(timeoutMs);
  if (lower(semid, timeoutMs == infinite)) return waitResult(state, signalled, 1);
  if (timeoutMs == 0 || errno == EAGAIN) return waitResult(state, timedOut, 1);
  return waitResult(state, failed, 0);
}

int KesOsSemaphoreVal(int semid) { return ::semctl(semid, 0, GETVAL); }

namespace kes::kesos {

int createSemaphore(int& semid, key_t key, int initialValue, char tag, bool& isNew) {
  const Outcome outcome = undisturbed([&] {
    const Outcome first = createAndCount(semid, key, initialValue, isNew);
    return first == Outcome::gone ? createAgain(semid, key, initialValue, isNew) : first;
  });
  return resultOf(outcome, semid, tag);
}

bool addOne(int semid) {
  sembuf operation{0, 1, 0};
  return ::semop(semid, &operation, 1) == 0;
}

bool addOneIfZero(int semid) {
  std::array<sembuf, 2> operations{{{0, 0, IPC_NOWAIT}, {0, 1, 0}}};
  return ::semop(semid, operations.data(), operations.size()) == 0 || errno == EAGAIN;
}

bool setValue(int semid, int value) {
  SemaphoreArgument argument{};
  argument.value = value;
  return ::semctl(semid, 0, SETVAL, argument) == 0;
}

}  // namespace kes::kesos
