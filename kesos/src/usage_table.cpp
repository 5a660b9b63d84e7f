#include "usage_table.h"

#include <sys/shm.h>

#include <algorithm>
#include <memory>
#include <new>
#include <span>
#include <utility>

#include "mutex_guard.h"
#include "paths.h"
#include "segments.h"

kes::kesos::SemCounter* sem_counter = nullptr;
kes::kesos::UsageTable* kesos_shm = nullptr;

namespace {

using kes::kesos::failWith;
using kes::kesos::UsageTable;
using Slot = UsageTable::Slot;

constexpr key_t tableKey = 32777;

// Other processes count in the same words: each change is one atomic step, so that none is lost.
void add(std::uint32_t& word, std::uint32_t change) { __atomic_fetch_add(&word, change, __ATOMIC_SEQ_CST); }
std::uint32_t subtractOne(std::uint32_t& word) { return __atomic_sub_fetch(&word, 1, __ATOMIC_SEQ_CST); }
std::uint32_t load(const std::uint32_t& word) { return __atomic_load_n(&word, __ATOMIC_SEQ_CST); }
void store(std::uint32_t& word, std::uint32_t value) { __atomic_store_n(&word, value, __ATOMIC_SEQ_CST); }

bool claim(Slot& slot, std::uint32_t id) {
  std::uint32_t expected = UsageTable::freeSlot;
  return __atomic_compare_exchange_n(&slot.semid, &expected, id, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

std::span<Slot> usedSlots() {
  const std::size_t used = load(kesos_shm->slotsUsed);
  return {kesos_shm->slots.data(), std::min(used, kesos_shm->slots.size())};
}

Slot* findSlot(int semid) {
  for (Slot& slot : usedSlots()) {
    if (load(slot.semid) == static_cast<std::uint32_t>(semid)) return &slot;
  }
  return nullptr;
}

/// Tracks the semaphore in the first free slot; without one it is not tracked.
void takeSlot(int semid) {
  for (Slot& slot : kesos_shm->slots) {
    if (!claim(slot, static_cast<std::uint32_t>(semid))) continue;
    store(slot.references, 1);
    const auto index = static_cast<std::uint32_t>(&slot - kesos_shm->slots.data());
    if (index == load(kesos_shm->slotsUsed)) add(kesos_shm->slotsUsed, 1);
    return;
  }
}

kes::kesos::SemCounter* inherited = nullptr;  // the parent's record, kept for this process's own use
std::uint32_t forks = 0;
bool childrenAttach = false;  // whether a child has the table attached without having asked for it

std::unique_ptr<kes::kesos::SemCounter> newCounter() {
  std::unique_ptr<kes::kesos::SemCounter> counter(std::exchange(inherited, nullptr));
  if (counter == nullptr) counter.reset(new (std::nothrow) kes::kesos::SemCounter);
  if (counter != nullptr) *counter = {};
  return counter;
}

// A fork waits for the table's mutex: the child, which has none of the other threads, finds it free.
void holdTable() { ::pthread_mutex_lock(&kes::kesos::usageMutex()); }
void releaseTable() { ::pthread_mutex_unlock(&kes::kesos::usageMutex()); }

/// In the child, nothing is counted for this process yet. If it has its parent's attachment, that goes: it
/// would keep the table when the parent leaves; and when the parent has left already, the table goes with it.
/// No memory is taken or given back: other threads may have been at that.
void beginAnew() {
  if (sem_counter != nullptr) {
    if (childrenAttach) KesOsMmfClose(&sem_counter->memory);
    kesos_shm = nullptr;
    inherited = std::exchange(sem_counter, nullptr);
  }
  ++forks;
  releaseTable();
}

// Before there are threads, since a child of that very moment would not be able to say whether it was done.
const int noForkHandlers = ::pthread_atfork(holdTable, releaseTable, beginAnew);

void clearReferences() {
  store(kesos_shm->references, 0);
  for (Slot& slot : kesos_shm->slots) {
    store(slot.semid, UsageTable::freeSlot);
    store(slot.references, 0);
  }
}

}  // namespace

int initSemCounter(void) {
  if (noForkHandlers != 0) return failWith(noForkHandlers);
  std::unique_ptr<kes::kesos::SemCounter> counter = newCounter();
  if (counter == nullptr) return failWith(ENOMEM);
  if (KesOsMmfCreate(&counter->memory, sizeof(UsageTable), nullptr, tableKey) == 0) return 0;
  if (counter->memory.size < sizeof(UsageTable)) {  // somebody else's segment under our key
    ::shmdt(counter->memory.address);
    return failWith(EINVAL);
  }
  childrenAttach = !kes::os::keepFromChildren(counter->memory.address, counter->memory.size);
  sem_counter = counter.release();
  kesos_shm = static_cast<UsageTable*>(sem_counter->memory.address);
  if (sem_counter->memory.created != 0) {
    store(kesos_shm->processes, 1);
    store(kesos_shm->handles, 0);
  } else {
    add(kesos_shm->processes, 1);
  }
  return 1;
}

namespace kes::kesos {

pthread_mutex_t& usageMutex() noexcept {
  static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  return mutex;
}

std::uint32_t forkCount() noexcept { return forks; }

bool joinUsage() {
  if (sem_counter != nullptr) return true;
  if (initSemCounter() == 0) return false;
  if (load(kesos_shm->handles) == 0) clearReferences();
  return true;
}

bool holdUsage() {
  if (!joinUsage()) return false;
  ++sem_counter->references;
  return true;
}

void addUse(int semid, bool keyed) {
  ++sem_counter->references;
  add(kesos_shm->handles, 1);
  if (!keyed) return;
  add(kesos_shm->references, 1);
  if (Slot* slot = findSlot(semid)) {
    add(slot->references, 1);
  } else {
    takeSlot(semid);
  }
}

Use dropReference(int semid) {
  Slot* slot = kesos_shm != nullptr ? findSlot(semid) : nullptr;
  if (slot == nullptr) return Use::untracked;
  subtractOne(kesos_shm->references);
  if (subtractOne(slot->references) > 0) return Use::shared;
  store(slot->semid, UsageTable::freeSlot);
  return Use::last;
}

void leaveUsage() {
  if (sem_counter == nullptr || --sem_counter->references > 0) return;
  if (kesos_shm != nullptr) {
    subtractOne(kesos_shm->processes);
    kesos_shm = nullptr;
    KesOsMmfClose(&sem_counter->memory);
  }
  delete std::exchange(sem_counter, nullptr);
}

void dropHandle() {
  if (kesos_shm != nullptr) subtractOne(kesos_shm->handles);
  leaveUsage();
}

// Whoever detaches the table last removes it.
void forgetTheDead() {
  const MutexGuard guard(usageMutex());
  if (sem_counter == nullptr && holdUsage()) leaveUsage();
}

}  // namespace kes::kesos
