#pragma once

#include <pthread.h>

#include <array>
#include <cstdint>

#include "kesos/mappings.h"

namespace kes::kesos {

/// Who uses which keyed semaphore: a shared-memory segment that every process with such semaphores attaches.
/// Processes change it without a lock between them; its counts only decide who removes a semaphore.
struct UsageTable {
  struct Slot {
    std::uint32_t semid;  ///< freeSlot when free
    std::uint32_t references;
  };
  static constexpr std::uint32_t freeSlot = 0xFFFFFFFF;

  std::uint32_t unused;
  std::uint32_t processes;   ///< attached ones
  std::uint32_t handles;     ///< live semaphore handles, keyed or not
  std::uint32_t references;  ///< held on keyed semaphores
  std::uint32_t slotsUsed;   ///< one past the highest slot ever used
  std::array<Slot, 60> slots;
};
static_assert(sizeof(UsageTable) == 500);

/// This process's part in the table.
struct SemCounter {
  std::uint32_t references;  ///< to the table
  KesOsMmf memory;
};

}  // namespace kes::kesos

extern "C" {

extern kes::kesos::SemCounter* sem_counter;  ///< null while this process does not use the table
extern kes::kesos::UsageTable* kesos_shm;    ///< where the table is attached, or null

/// Attaches the table, which is created when it is missing. The caller holds the table's mutex.
int initSemCounter(void);
}

namespace kes::kesos {

/// Held by the threads of this process around every use of the functions below and of the two pointers, and
/// over a fork. A child has no part in the table until it opens something itself.
pthread_mutex_t& usageMutex() noexcept;

/// How many forks lie between the program's start and this process: what was opened at another count is in
/// the table for another process. Needs no mutex.
std::uint32_t forkCount() noexcept;

/// Attaches the table unless this process has it already.
bool joinUsage();

/// The same, and keeps it attached until leaveUsage().
bool holdUsage();

/// Counts a handle of this process and, for a keyed semaphore, a reference to it.
void addUse(int semid, bool keyed);

enum class Use { untracked, shared, last };

/// Takes back a reference to the semaphore. Its slot is free when that was the last one.
Use dropReference(int semid);

/// Takes back this process's reference to the table, which is detached after the last one.
void leaveUsage();

/// Takes back a handle, and with it such a reference.
void dropHandle();

/// Removes the table when no process that lives has it attached, and with it what the dead are counted for.
void forgetTheDead();

}  // namespace kes::kesos
