#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "everyfailure/Flat.h"
#include "kesos/Ipc.h"
#include "kesos/ipc.h"
#include "kesos/kesos.h"
#include "sys/AtEnd.h"

// Mutexes, events and segments of the flat layer.

namespace kes::test {
namespace {

class EveryFailureOfFlatObjects : public IpcTest {};

/// A key for each run, since one may leave what the system does not let it remove.
unsigned int keyOf(const Stage& stage) {
  return static_cast<unsigned int>(std::hash<std::string>()(stage / "")) | 1U;
}

int idOf(unsigned int key) { return ::semget(static_cast<key_t>(key), 0, 0); }

/// Removes at the end what a run could not, because that was what was refused.
class Removal {
 public:
  explicit Removal(const Stage& stage) : stage_(stage) {}
  ~Removal() {
    if (!stage_.isRefused(Call::semctl) && !stage_.isRefused(Call::shmctl)) return;
    const unsigned int key = keyOf(stage_);
    ::semctl(idOf(key), 0, IPC_RMID);
    for (const key_t segment : {static_cast<key_t>(key), key_t{32777}})
      ::shmctl(::shmget(segment, 0, 0), IPC_RMID, nullptr);
  }
  Removal(const Removal&) = delete;
  Removal& operator=(const Removal&) = delete;

 private:
  const Stage& stage_;
};

/// Gives a handle back when the play is left, however that happens.
template <typename Handle, int (*close)(Handle*)>
class Owned {
 public:
  Owned() = default;
  ~Owned() {
    if (handle_ != nullptr) close(handle_);
  }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;

  Handle* get() const { return handle_; }
  Handle** place() { return &handle_; }
  Handle* release() { return std::exchange(handle_, nullptr); }

 private:
  Handle* handle_ = nullptr;
};
using Mutex = Owned<KesOsMutex, KesOsMutexClose>;
using Event = Owned<KesOsEvent, KesOsEventClose>;

/// Of what is made with a key, errno says why it could not be.
template <typename Function>
void create(Stage& stage, unsigned int key, Function function) {
  if (key != 0) {
    flat(stage, function);
  } else {
    stage.act([&] { return function() == 1; });
  }
}

void useMutex(Stage& stage, const Mutex& mutex) {
  unsigned int state = 7;
  stage.act([&] { return KesOsMutexWait(mutex.get(), infinite, &state) == 1 && state == 1; });
  stage.check(stage.succeeded() == (state == 1), "the state says whether it is locked");
  if (stage.succeeded()) stage.act([&] { return KesOsMutexRelease(mutex.get()) == 1; });
}

void playMutex(Stage& stage, unsigned int key) {
  const Removal removal(stage);
  Mutex mutex;
  create(stage, key, [&] { return KesOsMutexCreate(mutex.place(), key); });
  stage.check(stage.succeeded() == (mutex.get() != nullptr), "there is a handle with a mutex");
  if (mutex.get() == nullptr) return;
  useMutex(stage, mutex);
  stage.act([&] { return KesOsMutexClose(mutex.release()) == 1; });
}

TEST_F(EveryFailureOfFlatObjects, ALocalMutexIsMadeUsedAndClosed) {
  expectSurvival(
      {.operations = {"KesOsMutexCreate", "KesOsMutexWait", "KesOsMutexRelease", "KesOsMutexClose"},
       .play = [](Stage& stage) { playMutex(stage, 0); },
       .spared = {Call::pthread_mutex_trylock}});  // who closes waits until it is free
}

TEST_F(EveryFailureOfFlatObjects, AKeyedMutexIsMadeUsedAndClosed) {
  expectSurvival(
      {.operations = {"KesOsMutexCreate", "KesOsMutexWait", "KesOsMutexRelease", "KesOsMutexClose"},
       .play = [](Stage& stage) { playMutex(stage, keyOf(stage)); },
       .spared = {Call::shmdt}});  // what cannot be detached stays
}

TEST_F(EveryFailureOfFlatObjects, AKeyedMutexIsOpenedAndClosedBesideAnotherUser) {
  expectSurvival({.operations = {"KesOsMutexOpen", "KesOsMutexClose"},
                  .play =
                      [](Stage& stage) {
                        const unsigned int key = keyOf(stage);
                        const Removal removal(stage);
                        Mutex first, second;
                        if (KesOsMutexCreate(first.place(), key) != 1) return;
                        flat(stage, [&] { return KesOsMutexOpen(second.place(), key); });
                        stage.check(stage.succeeded() == (second.get() != nullptr),
                                    "there is a handle with a mutex");
                        if (second.get() != nullptr)
                          stage.act([&] { return KesOsMutexClose(second.release()) == 1; });
                        stage.check(KesOsSemaphoreVal(idOf(key)) == 1, "the first user has its mutex");
                      },
                  .spared = {Call::shmdt}});  // what cannot be detached stays
}

void playEvent(Stage& stage, unsigned int key) {
  const Removal removal(stage);
  Event event;
  create(stage, key, [&] { return KesOsEventCreate(event.place(), key); });
  stage.check(stage.succeeded() == (event.get() != nullptr), "there is a handle with an event");
  if (event.get() == nullptr) return;
  stage.act([&] { return KesOsEventSet(event.get()) == 1; });
  unsigned int state = 7;
  stage.act([&] { return KesOsEventWait(event.get(), 0, &state) == 1 && state == 1; });
  stage.act([&] { return KesOsEventReset(event.get()) == 1; });
  if (key == 0) {
    stage.act([&] { return KesOsEventWait(event.get(), 1, &state) == 0 && state == 999; });
    stage.check(state == 999 || state == 0, "it did not come");
  }
  stage.act([&] { return KesOsEventClose(event.release()) == 1; });
}

TEST_F(EveryFailureOfFlatObjects, ALocalEventIsMadeUsedAndClosed) {
  expectSurvival({.operations = {"KesOsEventCreate", "KesOsEventSet", "KesOsEventReset", "KesOsEventWait",
                                 "KesOsEventClose"},
                  .play = [](Stage& stage) { playEvent(stage, 0); },
                  .spared = {Call::pthread_mutex_trylock}});  // who closes waits until it is free
}

void* setSoon(void* event) {
  ::usleep(500);
  KesOsEventSet(static_cast<KesOsEvent*>(event));
  return nullptr;
}

TEST_F(EveryFailureOfFlatObjects, AWaitForALocalEventEndsWhenAnotherThreadSetsIt) {
  for (const unsigned int timeout : {infinite, 10'000U}) {
    expectSurvival({.operations = {"KesOsEventWait", "KesOsEventSet"},
                    .play =
                        [timeout](Stage& stage) {
                          Event event;  // closed at the end, for which nobody may hold its lock
                          if (KesOsEventCreate(event.place(), 0) != 1) return;
                          pthread_t setter{};
                          ::pthread_create(&setter, nullptr, setSoon, event.get());
                          const sys::AtEnd joining([&] { ::pthread_join(setter, nullptr); });
                          unsigned int state = 7;
                          stage.act([&] { return KesOsEventWait(event.get(), timeout, &state) == 1; });
                          stage.check(stage.succeeded() == (state == 1), "the state says so, too");
                        },
                    .misused = {Call::pthread_cond_wait, Call::pthread_cond_timedwait, Call::gettimeofday}});
  }
}

TEST_F(EveryFailureOfFlatObjects, AKeyedEventIsMadeUsedAndClosed) {
  expectSurvival({.operations = {"KesOsEventCreate", "KesOsEventSet", "KesOsEventReset", "KesOsEventWait",
                                 "KesOsEventClose"},
                  .play = [](Stage& stage) { playEvent(stage, keyOf(stage)); },
                  .spared = {Call::shmdt}});  // what cannot be detached stays
}

TEST_F(EveryFailureOfFlatObjects, AKeyedEventIsOpenedAndItsValueRead) {
  expectSurvival({.operations = {"KesOsEventOpen", "KesOsSemaphoreVal"},
                  .play =
                      [](Stage& stage) {
                        const unsigned int key = keyOf(stage);
                        const Removal removal(stage);
                        Event first, second;
                        if (KesOsEventCreate(first.place(), key) != 1) return;
                        flat(stage, [&] { return KesOsEventOpen(second.place(), key); });
                        stage.check(stage.succeeded() == (second.get() != nullptr),
                                    "there is a handle with an event");
                        const int id = idOf(key);
                        stage.act([&] { return KesOsSemaphoreVal(id) == 0; });
                      },
                  .spared = {Call::shmdt}});  // what cannot be detached stays
}

/// A holder that is found dead: its status is left until the play is over.
class DeadHolder {
 public:
  explicit DeadHolder(KesOsMutex* mutex) : pid_(::fork()) {
    if (pid_ == 0) {
      KesOsMutexWait(mutex, infinite, nullptr);
      ::_exit(0);
    }
    siginfo_t info{};
    ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
  }
  ~DeadHolder() { ::waitpid(pid_, nullptr, 0); }
  DeadHolder(const DeadHolder&) = delete;
  DeadHolder& operator=(const DeadHolder&) = delete;

 private:
  const pid_t pid_;
};

/// The segment of the notes is made once, and stays for all runs.
void makeNotes() {
  KesOsMutex* mutex = nullptr;
  if (KesOsMutexCreateEx(&mutex, freshKey(), nullptr) == 1) KesOsMutexClose(mutex);
}

TEST_F(EveryFailureOfFlatObjects, AKeyedMutexIsHadWithinATimeAndAfterADeadHolder) {
  makeNotes();
  for (const bool isLeftByDead : {false, true}) {
    expectSurvival(
        {.operations = {"KesOsMutexCreateEx", "KesOsMutexWaitEx"},
         .play =
             [isLeftByDead](Stage& stage) {
               const unsigned int key = keyOf(stage);
               const Removal removal(stage);
               Mutex mutex;
               int created = 7;
               flat(stage, [&] { return KesOsMutexCreateEx(mutex.place(), key, &created); });
               stage.check(stage.succeeded() == (mutex.get() != nullptr), "there is a handle with a mutex");
               if (mutex.get() == nullptr) return;
               stage.check(created == 1, "it was made");
               std::optional<DeadHolder> holder;
               if (isLeftByDead) holder.emplace(mutex.get());
               unsigned int state = 7;
               // A look that is refused sees no death: then the time ends the wait.
               stage.act([&] { return KesOsMutexWaitEx(mutex.get(), 150, &state) == 1; });
               stage.check(stage.succeeded() == (state == KESOS_WAIT_DONE || state == KESOS_WAIT_HOLDER_DIED),
                           "the state says whether it is locked");
               stage.check(!stage.succeeded() || (state == KESOS_WAIT_HOLDER_DIED) == isLeftByDead,
                           "it says whether the holder died");
               if (stage.succeeded()) KesOsMutexRelease(mutex.get());
             },
         .spared = {Call::shmdt}});  // what cannot be detached stays
  }
}

TEST_F(EveryFailureOfFlatObjects, ALocalMutexIsHadWithinATime) {
  expectSurvival({.operations = {"KesOsMutexCreateEx", "KesOsMutexWaitEx"},
                  .play =
                      [](Stage& stage) {
                        Mutex mutex;
                        int created = 7;
                        stage.act([&] { return KesOsMutexCreateEx(mutex.place(), 0, &created) == 1; });
                        if (mutex.get() == nullptr) return;
                        unsigned int state = 7;
                        flat(stage, [&] { return KesOsMutexWaitEx(mutex.get(), 50, &state); });
                        stage.check(stage.succeeded() == (state == KESOS_WAIT_DONE),
                                    "the state says so, too");
                        if (stage.succeeded()) KesOsMutexRelease(mutex.get());
                      },
                  .spared = {Call::pthread_mutex_trylock}});  // who closes waits until it is free
}

TEST_F(EveryFailureOfFlatObjects, AnEventIsWaitedForWithinATime) {
  for (const bool isKeyed : {false, true}) {
    expectSurvival(
        {.operations = {"KesOsEventCreateEx", "KesOsEventWaitEx"},
         .play =
             [isKeyed](Stage& stage) {
               const unsigned int key = isKeyed ? keyOf(stage) : 0;
               const Removal removal(stage);
               Event event;
               int created = 7;
               create(stage, key, [&] { return KesOsEventCreateEx(event.place(), key, &created); });
               if (event.get() == nullptr) return;
               stage.check(created == 1, "it was made");
               unsigned int state = 7;
               KesOsEventSet(event.get());
               // A semaphore that is always in vain ends with the time.
               stage.act([&] { return KesOsEventWaitEx(event.get(), 50, &state) == 1; });
               stage.check(stage.succeeded() == (state == KESOS_WAIT_DONE), "the state says so, too");
               stage.act([&] { return KesOsEventWaitEx(event.get(), 1, &state) == 0; });
             },
         .spared = {Call::shmdt, Call::pthread_mutex_trylock},  // as above
         .misused = {Call::pthread_cond_clockwait}});
  }
}

TEST_F(EveryFailureOfFlatObjects, AKeyedObjectIsRemovedByItsKey) {
  expectSurvival({.operations = {"KesOsRemoveKeyed"},
                  .play =
                      [](Stage& stage) {
                        const unsigned int key = keyOf(stage);
                        const sys::AtEnd removing([key] { ::semctl(idOf(key), 0, IPC_RMID); });
                        const Removal removal(stage);
                        ::semget(static_cast<key_t>(key), 1, IPC_CREAT | 0666);
                        flat(stage, [key] { return KesOsRemoveKeyed(key); });
                        stage.check(stage.succeeded() == (idOf(key) == -1), "it is gone or not");
                      },
                  .spared = {Call::shmdt}});  // what cannot be detached stays
}

TEST_F(EveryFailureOfFlatObjects, ASegmentIsMadeOpenedAndClosed) {
  expectSurvival(
      {.operations = {"KesOsMmfCreate", "KesOsMmfOpen", "KesOsMmfClose"}, .play = [](Stage& stage) {
         const auto key = static_cast<key_t>(keyOf(stage));
         const Removal removal(stage);
         KesOsMmf first{-1, -1, 0, nullptr, 0, 0}, second = first;
         const sys::AtEnd closing([&] {
           KesOsMmfClose(&second);
           KesOsMmfClose(&first);
         });
         flat(stage, [&] { return KesOsMmfCreate(&first, 100, nullptr, key); });
         stage.check(stage.succeeded() == (first.address != nullptr), "it is attached or not");
         if (!stage.succeeded()) return;
         flat(stage, [&] { return KesOsMmfOpen(&second, 0, key); });
         stage.check(stage.succeeded() == (second.address != nullptr), "it is attached or not");
         stage.act([&] { return KesOsMmfClose(&second) == 1; });
         stage.check(second.address == nullptr, "it is closed");
         stage.act([&] { return KesOsMmfClose(&first) == 1; });
         stage.check(first.address == nullptr, "it is closed");
       }});
}

}  // namespace
}  // namespace kes::test
