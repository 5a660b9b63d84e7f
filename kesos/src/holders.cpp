#include "holders.h"

#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <optional>

#include "ipc.h"
#include "kesos/ipc.h"
#include "kesos/time.h"
#include "lives.h"
#include "semaphores.h"
#include "sys/KeepErrno.h"
#include "sys/NoCancel.h"

namespace {

constexpr key_t holdersKey = 32778;

using Word = std::uint64_t;

// Processes read and write the words without a lock between them: each access is one atomic step.
Word load(const Word& word) { return __atomic_load_n(&word, __ATOMIC_SEQ_CST); }
void store(Word& word, Word value) { __atomic_store_n(&word, value, __ATOMIC_SEQ_CST); }
bool change(Word& word, Word from, Word to) {
  return __atomic_compare_exchange_n(&word, &from, to, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

/// Who holds a mutex. One that is torn, because two were written at once, does not fit its check word.
struct Holding {
  Word holder;   ///< semaphore and process
  Word start;    ///< of the process
  Word takenAt;  ///< when the semaphore says that it was last changed, in seconds
  Word check;

  Word sum() const {
    return (holder ^ std::rotl(start, 21) ^ std::rotl(takenAt, 42)) +
           0x9E3779B97F4A7C15U;  // never 0 of zeros
  }
};

/// The segment, zero at first. A note may be written over by that of another mutex: then less is known.
struct Holders {
  Word repairer;  ///< process that looks after a dead one's mutex, and the lower half of its start; or 0
  std::array<Holding, 127> notes;
};
static_assert(sizeof(Holders) <= 4096);

std::atomic<Holders*> holders{nullptr};

Word pairOf(std::uint32_t high, std::uint32_t low) { return (Word{high} << 32U) | low; }

Word holderOf(int semid, pid_t pid) {
  return pairOf(static_cast<std::uint32_t>(semid), static_cast<std::uint32_t>(pid));
}

Holding& noteOf(int semid) {
  auto& notes = holders.load()->notes;
  return notes[static_cast<std::uint32_t>(semid) % notes.size()];
}

Holding readNote(int semid) {
  const Holding& note = noteOf(semid);
  return {load(note.holder), load(note.start), load(note.takenAt), load(note.check)};
}

void writeNote(int semid, Holding note) {
  Holding& place = noteOf(semid);
  store(place.check, 0);
  store(place.holder, note.holder);
  store(place.start, note.start);
  store(place.takenAt, note.takenAt);
  store(place.check, note.sum());
}

int segment() {
  const int made = ::shmget(holdersKey, sizeof(Holders), ipc_default_mode | IPC_CREAT | IPC_EXCL);
  if (made < 0) return errno == EEXIST ? ::shmget(holdersKey, sizeof(Holders), 0) : -1;
  if (!kes::kesos::setSegmentOwner(made)) {
    const kes::sys::KeepErrno whyNot;
    ::shmctl(made, IPC_RMID, nullptr);
    return -1;
  }
  return made;
}

/// When this process began; 0 when that cannot be told. Asked for once in each process.
Word ownStart() {
  static std::atomic<pid_t> asked{0};
  static std::atomic<Word> start{0};
  const pid_t self = ::getpid();
  if (asked.load() == self) return start.load();
  start = kes::os::lifeOf(self).start;
  asked = self;
  return start.load();
}

std::optional<Word> lastChange(int semid) {
  semid_ds state{};
  kes::kesos::SemaphoreArgument argument{};
  argument.state = &state;
  if (::semctl(semid, 0, IPC_STAT, argument) != 0) return std::nullopt;
  return static_cast<Word>(state.sem_otime);
}

/// Whether the process that took the mutex at that moment is gone. One that has its id since then has another
/// start than is noted, where it is.
bool isGone(int semid, pid_t pid, Word takenAt) {
  const kes::os::Life life = kes::os::lifeOf(pid);
  if (life.isOver || life.start == 0) return life.isOver;
  const Holding note = readNote(semid);
  return note.check == note.sum() && note.holder == holderOf(semid, pid) && note.takenAt == takenAt &&
         note.start != life.start;
}

/// Who changed the semaphore last; 0 for nobody, or for who is out of sight.
pid_t lastUser(int semid) { return ::semctl(semid, 0, GETPID); }

/// The value is asked for when its last user is known to be dead: as long as that is the last one, it stays
/// what it is.
bool isHeldByDead(int semid) {
  const pid_t pid = lastUser(semid);
  const std::optional<Word> takenAt = lastChange(semid);
  return pid > 0 && takenAt && isGone(semid, pid, *takenAt) && KesOsSemaphoreVal(semid) == 0 &&
         lastUser(semid) == pid;
}

/// Whether the semaphore was made, and nobody has given it a value or used it yet.
bool isUnfinished(int semid) {
  return KesOsSemaphoreVal(semid) == 0 && lastUser(semid) == 0 && lastChange(semid) == Word{0};
}

/// The right to look after what the dead left. Another process that dies with it loses it.
class Repair {
 public:
  Repair() {
    const Word before = load(holders.load()->repairer);
    if (before == 0 || isDead(before)) has_ = change(holders.load()->repairer, before, own_);
  }
  ~Repair() {
    if (has_) change(holders.load()->repairer, own_, 0);
  }
  Repair(const Repair&) = delete;
  Repair& operator=(const Repair&) = delete;

  explicit operator bool() const { return has_; }

 private:
  static bool isDead(Word repairer) {
    const kes::os::Life life = kes::os::lifeOf(static_cast<pid_t>(repairer >> 32U));
    const auto noted = static_cast<std::uint32_t>(repairer), start = static_cast<std::uint32_t>(life.start);
    return life.isOver || (noted != 0 && start != 0 && noted != start);
  }

  const Word own_ = pairOf(static_cast<std::uint32_t>(::getpid()), static_cast<std::uint32_t>(ownStart()));
  bool has_ = false;
};

}  // namespace

namespace kes::kesos {

bool joinHolders() {
  if (holders.load() != nullptr) return true;
  const int id = segment();
  if (id < 0) return false;
  void* address = ::shmat(id, nullptr, 0);
  if (reinterpret_cast<std::intptr_t>(address) == -1) return false;
  Holders* nobodys = nullptr;
  if (!holders.compare_exchange_strong(nobodys, static_cast<Holders*>(address))) ::shmdt(address);
  return true;
}

void noteHolder(int semid) {
  const sys::KeepErrno ofTheWait;
  const Word start = ownStart();
  const std::optional<Word> takenAt = lastChange(semid);
  if (start != 0 && takenAt) writeNote(semid, {holderOf(semid, ::getpid()), start, *takenAt, 0});
}

// To take it is to make the last operation on it, a wait for the value that it has. It is looked at twice:
// before, since few mutexes are left by the dead, and with the right to them, since another may have been
// faster.
bool lockOfDead(int semid) {
  const sys::NoCancel untilDone;
  if (!isHeldByDead(semid)) return false;
  const Repair repair;
  if (!repair || !isHeldByDead(semid)) return false;
  sembuf taking{0, 0, IPC_NOWAIT};
  return ::semop(semid, &taking, 1) == 0;
}

bool finishForDead(int semid) {
  const sys::NoCancel untilDone;
  for (int tries = 0; tries < 100; ++tries) {
    if (!isUnfinished(semid)) return false;
    KesOsSleep(10);
  }
  const Repair repair;
  return repair && isUnfinished(semid) && setValue(semid, 1);
}

}  // namespace kes::kesos
