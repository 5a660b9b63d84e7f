#pragma once

#include <sys/sem.h>
#include <sys/types.h>

// System V semaphores that the processes using them count in the usage table. Results as in the public
// headers; `tag` is the letter of a message, 'M' for a mutex and 'E' for an event.
extern "C" {

int KesOsCreate(int* semid, key_t key, int initialValue, char tag);
int KesOsOpen(int* semid, key_t key, char tag);
int KesOsClose(int semid);
int KesOsWait(int semid, unsigned int timeoutMs, unsigned int* state);
}

namespace kes::kesos {

/// What a wait leaves in the caller's state word.
enum WaitState : unsigned int { failed = 0, signalled = 1, holderDied = 2, timedOut = 999 };

/// Timeout of a wait without limit.
constexpr unsigned int infinite = 0xFFFFFFFF;

/// Stores the outcome of a wait, when the caller wants it, and passes the result on.
inline int waitResult(unsigned int* state, WaitState outcome, int result) noexcept {
  if (state != nullptr) __atomic_store_n(state, outcome, __ATOMIC_RELEASE);
  return result;
}

/// The argument of semctl(), which some systems leave to the program to define.
union SemaphoreArgument {
  int value;
  ::semid_ds* state;
  unsigned short* values;
};

/// KesOsCreate, which also says whether the semaphore is a new one.
int createSemaphore(int& semid, key_t key, int initialValue, char tag, bool& isNew);

/// Adds one to the semaphore.
bool addOne(int semid);

/// Adds one to the semaphore if it is below one: one call that tests and adds, so that two releases at once
/// cannot both add.
bool addOneIfZero(int semid);

bool setValue(int semid, int value);

}  // namespace kes::kesos
