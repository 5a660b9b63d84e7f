#include <linux/sched.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <thread>

#include "kesos/Ipc.h"
#include "kesos/ipc.h"
#include "kesos/mutexes.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/Sanitizer.h"

// What becomes of a keyed mutex whose holder dies.
namespace {

using namespace kes::test;

constexpr unsigned int failed = KESOS_WAIT_FAILED, done = KESOS_WAIT_DONE,
                       holderDied = KESOS_WAIT_HOLDER_DIED, timedOut = KESOS_WAIT_TIMED_OUT;

class HolderTest : public IpcTest {};

/// How a wait came out.
unsigned int lockWithin(KesOsMutex* mutex, unsigned int timeoutMs) {
  unsigned int state = 7;
  const int result = KesOsMutexWaitEx(mutex, timeoutMs, &state);
  EXPECT_EQ(result == 1, state == done || state == holderDied);
  return state;
}

/// Another process that holds the mutex with a key, and does nothing else.
class Holder {
 public:
  enum Lock { plainly, within };

  explicit Holder(unsigned int key, Lock lock = within)
      : pid_(startProcess([this, key, lock] { return hold(key, lock); })) {
    EXPECT_TRUE(eventually([this] { return isHeld_->load(); }));
  }
  ~Holder() {
    if (pid_ > 0) endUnreaped(), reap();
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

  pid_t pid() const { return pid_; }
  /// Kills it and waits until it is dead; its status stays where it is.
  void endUnreaped() const {
    siginfo_t info{};
    ::kill(pid_, SIGKILL);
    ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
  }
  void reap() { EXPECT_EQ(waitForProcess(std::exchange(pid_, -1)), 128 + SIGKILL); }
  void end() {
    endUnreaped();
    reap();
  }

 private:
  int hold(unsigned int key, Lock lock) const {
    KesOsMutex* mutex = mutexOf(key);
    const int held =
        lock == plainly ? KesOsMutexWait(mutex, infinite, nullptr) : KesOsMutexWaitEx(mutex, 60'000, nullptr);
    *isHeld_ = held == 1;
    for (;;) ::pause();
    return 0;
  }

  const Shared<std::atomic<bool>> isHeld_;
  pid_t pid_;
};

/// A process with an id of our choice, which was another's before; -1 with errno where that is not permitted.
pid_t startWithId(pid_t wanted, const std::function<void()>& body) {
  clone_args how{};
  how.exit_signal = SIGCHLD;
  how.set_tid = reinterpret_cast<std::uintptr_t>(&wanted);
  how.set_tid_size = 1;
  const auto pid = static_cast<pid_t>(::syscall(SYS_clone3, &how, sizeof how));
  if (pid != 0) return pid;
  body();
  for (;;) ::pause();
}

/// The segment in which holders are noted.
class Notes {
 public:
  Notes() : words_(static_cast<std::uint64_t*>(::shmat(::shmget(32778, 0, 0), nullptr, 0))) {}
  ~Notes() { ::shmdt(words_); }
  Notes(const Notes&) = delete;
  Notes& operator=(const Notes&) = delete;

  void setRepairer(pid_t pid, std::uint32_t start) const {
    __atomic_store_n(words_, (static_cast<std::uint64_t>(pid) << 32U) | start, __ATOMIC_SEQ_CST);
  }
  std::uint64_t repairer() const { return __atomic_load_n(words_, __ATOMIC_SEQ_CST); }

 private:
  std::uint64_t* words_;
};

/// A test of a mutex that another process holds, and that is open here as well.
class HeldMutexTest : public HolderTest {
 protected:
  ~HeldMutexTest() override { KesOsMutexClose(mutex_); }

  const unsigned int key_ = freshKey();
  Holder holder_{key_};
  KesOsMutex* mutex_ = mutexOf(key_);
};

// First what is about a segment that is not there yet.

TEST_F(HolderTest, ASegmentThatCannotChangeHandsIsNotKept) {
  const ChildResult result = inChild([] {
    KesOsSetIpcPerms(0600, 0xFFFFFFFE, 0xFFFFFFFE);
    const Refuse refused(Call::shmctl, EPERM, {.option = IPC_SET});
    KesOsMutex* mutex = nullptr;
    const bool isMade = KesOsMutexCreateEx(&mutex, freshKey(), nullptr) == 1;
    if (isMade || errno != EPERM) return 1;
    return ::shmget(32778, 0, 0) == -1 ? 0 : 2;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST_F(HolderTest, TheSegmentOfTheNotesGetsThePermissionsOfOthers) {
  const ChildResult result = inChild([] {
    KesOsSetIpcPerms(0640, 0xFFFFFFFE, ::getgid());
    KesOsMutex* mutex = nullptr;
    if (KesOsMutexCreateEx(&mutex, freshKey(), nullptr) != 1) return 1;
    shmid_ds state{};
    if (::shmctl(::shmget(32778, 0, 0), IPC_STAT, &state) != 0) return 2;
    KesOsMutexClose(mutex);
    return (state.shm_perm.mode & 0777) == 0640 && state.shm_perm.uid == ::getuid() ? 0 : 3;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST_F(HolderTest, WithoutRoomForNotesAWaitFailsAndSaysWhy) {
  KesOsMutex* mutex = mutexOf(freshKey());
  const ChildResult result = inChild([mutex] {
    for (const auto& [call, error] : {std::pair(Call::shmget, ENOSPC), std::pair(Call::shmat, ENOMEM)}) {
      const Refuse refused(call, error);
      unsigned int state = 7;
      if (KesOsMutexWaitEx(mutex, 0, &state) != 0 || state != failed || errno != error) return 1;
      KesOsMutex* other = mutex;
      if (KesOsMutexCreateEx(&other, freshKey(), nullptr) != 0 || other != nullptr || errno != error)
        return 2;
    }
    return KesOsMutexWaitEx(mutex, 0, nullptr) == 1 ? 0 : 3;
  });
  EXPECT_EQ(result.exitCode(), 0);
  KesOsMutexClose(mutex);
}

TEST_F(HeldMutexTest, TheDeathOfAHolderIsToldAndTheMutexIsHadInOrder) {
  holder_.end();
  EXPECT_EQ(lockWithin(mutex_, 10'000), holderDied);
  EXPECT_EQ(valueOf(key_), 0);
  unsigned int state = 7;
  EXPECT_EQ(KesOsMutexWait(mutex_, 0, &state), 1);
  EXPECT_EQ(state, timedOut) << "it is ours alone";
  EXPECT_EQ(KesOsMutexRelease(mutex_), 1);
  EXPECT_EQ(valueOf(key_), 1);
  EXPECT_EQ(lockWithin(mutex_, 10'000), done) << "told once";
  KesOsMutexRelease(mutex_);
}

TEST_F(HolderTest, AHolderThatLockedByThePlainCallIsSeenToDieAsWell) {
  const unsigned int key = freshKey();
  Holder holder(key, Holder::plainly);
  KesOsMutex* mutex = mutexOf(key);
  holder.end();
  EXPECT_EQ(lockWithin(mutex, infinite), holderDied);
  KesOsMutexClose(mutex);
}

TEST_F(HeldMutexTest, ADeadHolderThatNobodyReapedIsDead) {
  holder_.endUnreaped();
  EXPECT_EQ(lockWithin(mutex_, 10'000), holderDied);
}

TEST_F(HeldMutexTest, ATryAtOnceSeesADeadHolder) {
  EXPECT_EQ(lockWithin(mutex_, 0), timedOut);
  holder_.end();
  EXPECT_EQ(lockWithin(mutex_, 0), holderDied);
}

TEST_F(HeldMutexTest, ADeathDuringTheWaitEndsIt) {
  std::thread killer([&] {
    EXPECT_TRUE(eventually([id = semaphoreOf(key_)] { return ::semctl(id, 0, GETNCNT) > 0; }));
    holder_.end();
  });
  EXPECT_EQ(lockWithin(mutex_, infinite), holderDied);
  killer.join();
}

TEST_F(HolderTest, ALivingHolderKeepsTheMutexUntilTheTimeIsOver) {
  const unsigned int key = freshKey();
  for (const Holder::Lock lock : {Holder::plainly, Holder::within}) {
    Holder holder(key, lock);
    KesOsMutex* mutex = mutexOf(key);
    const auto start = std::chrono::steady_clock::now();
    errno = 0;
    EXPECT_EQ(lockWithin(mutex, 350), timedOut);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(350));
    KesOsMutexRelease(mutex);
    KesOsMutexClose(mutex);
  }
}

TEST_F(HolderTest, AProcessWhoseFirstThreadHasEndedStillHolds) {
  KES_SKIP_UNDER_SANITIZERS("watches the end of the first thread");
  const unsigned int key = freshKey();
  const Shared<std::atomic<bool>> isHeld;
  const pid_t pid = startProcess([&] {
    std::thread([&] {
      KesOsMutexWaitEx(mutexOf(key), 60'000, nullptr);
      *isHeld = true;
      for (;;) ::pause();
    }).detach();
    ::syscall(SYS_exit, 0);
    return 0;
  });
  ASSERT_TRUE(eventually([&] { return isHeld->load(); }));
  const std::string status = "/proc/" + std::to_string(pid) + "/stat";
  ASSERT_TRUE(eventually([&] { return shell("cat " + status).find(") Z ") != std::string::npos; }));
  KesOsMutex* mutex = mutexOf(key);
  EXPECT_EQ(lockWithin(mutex, 300), timedOut);
  ::kill(pid, SIGKILL);
  EXPECT_EQ(lockWithin(mutex, 10'000), holderDied);
  waitForProcess(pid);
  KesOsMutexClose(mutex);
}

TEST_F(HolderTest, OfAllWhoWaitOneIsToldAndNoTwoHoldTheMutex) {
  const unsigned int key = freshKey();
  struct Seen {
    std::atomic<int> told, inside, overlaps, waiting;
  };
  const Shared<Seen> seen;
  Holder holder(key);
  KesOsMutex* mutex = mutexOf(key);
  std::thread killer([&, id = semaphoreOf(key)] {
    EXPECT_TRUE(eventually([id] { return ::semctl(id, 0, GETNCNT) == 8; }));
    holder.endUnreaped();
  });
  const auto codes = runProcesses(8, [&](int) {
    KesOsMutex* own = mutexOf(key);
    for (int round = 0; round < 50; ++round) {
      unsigned int state = 7;
      if (KesOsMutexWaitEx(own, 60'000, &state) != 1) return 1;
      if (state == holderDied) ++seen->told;
      if (++seen->inside != 1) ++seen->overlaps;
      --seen->inside;
      if (KesOsMutexRelease(own) != 1) return 2;
    }
    return KesOsMutexClose(own) == 1 ? 0 : 3;
  });
  killer.join();
  EXPECT_THAT(codes, testing::Each(0));
  EXPECT_EQ(seen->told, 1);
  EXPECT_EQ(seen->overlaps, 0);
  KesOsMutexClose(mutex);
}

TEST_F(HolderTest, ProcessesThatDieInTurnKeepNobodyOutAndNoTwoHoldTheMutex) {
  constexpr int workers = 8, doomed = 4;
  const unsigned int key = freshKey();
  struct Seen {
    std::atomic<int> inside, overlaps, deaths, told, finished;
  };
  const Shared<Seen> seen;
  KesOsMutex* mutex = mutexOf(key);
  const auto lock = [&](KesOsMutex* own, bool plainly) {
    unsigned int state = 7;
    const int result =
        plainly ? KesOsMutexWait(own, infinite, &state) : KesOsMutexWaitEx(own, 60'000, &state);
    if (state == holderDied) {
      ++seen->told;
      seen->inside = 0;
    }
    if (++seen->inside != 1) ++seen->overlaps;
    return result == 1;
  };
  const auto unlock = [&](KesOsMutex* own) {
    --seen->inside;
    KesOsMutexRelease(own);
  };
  // Every other one is a plain user, for whom somebody has to see the deaths: the last one does to the end.
  const auto codes = runProcesses(workers + 1, [&](int index) {
    KesOsMutex* own = mutexOf(key);
    while (index == workers && seen->deaths + seen->finished < workers) {
      if (!lock(own, false)) return 1;
      unlock(own);
    }
    for (int round = 0; index < workers && round < 20; ++round) {
      if (!lock(own, index % 2 == 1)) return 2;
      if (round == 10 && index < doomed) {
        ++seen->deaths;
        ::kill(::getpid(), SIGKILL);
      }
      unlock(own);
    }
    if (index < workers) ++seen->finished;
    return 0;
  });
  if (lockWithin(mutex, 10'000) == holderDied) ++seen->told;
  EXPECT_THAT(codes, testing::UnorderedElementsAre(137, 137, 137, 137, 0, 0, 0, 0, 0));
  EXPECT_EQ(seen->told, doomed);
  EXPECT_EQ(seen->overlaps, 0);
  KesOsMutexRelease(mutex);
  KesOsMutexClose(mutex);
}

TEST_F(HeldMutexTest, APlainWaiterGoesOnAfterTheDeathIsPutInOrder) {
  const pid_t plain =
      startProcess([key = key_] { return KesOsMutexWait(mutexOf(key), infinite, nullptr) == 1 ? 0 : 1; });
  ASSERT_TRUE(eventually([id = semaphoreOf(key_)] { return ::semctl(id, 0, GETNCNT) == 1; }));
  holder_.end();
  EXPECT_EQ(lockWithin(mutex_, 10'000), holderDied);
  EXPECT_EQ(KesOsMutexRelease(mutex_), 1);
  EXPECT_EQ(waitForProcess(plain), 0);
  EXPECT_EQ(lockWithin(mutex_, 10'000), holderDied) << "it ended with the lock";
}

TEST_F(HolderTest, AProcessWithTheIdOfADeadHolderIsNotTakenForIt) {
  KES_SKIP_UNDER_SANITIZERS("does not know a process that is made by the system call alone");
  const unsigned int key = freshKey();
  Holder holder(key);
  const pid_t id = holder.pid();
  KesOsMutex* mutex = mutexOf(key);
  // The start of a process is told in hundredths of a second.
  ASSERT_TRUE(eventually([start = std::chrono::steady_clock::now()] {
    return std::chrono::steady_clock::now() - start > std::chrono::milliseconds(50);
  }));
  holder.end();
  const pid_t stranger = startWithId(id, [] {});
  if (stranger < 0) GTEST_SKIP() << "needs root, to choose the id of a process: " << std::strerror(errno);
  EXPECT_EQ(stranger, id);
  EXPECT_EQ(lockWithin(mutex, 10'000), holderDied);
  ::kill(stranger, SIGKILL);
  waitForProcess(stranger);
  KesOsMutexClose(mutex);
}

TEST_F(HolderTest, AProcessWithTheIdOfAHolderOfBeforeHoldsWhatItLocksItself) {
  KES_SKIP_UNDER_SANITIZERS("does not know a process that is made by the system call alone");
  const unsigned int key = freshKey();
  Holder before(key);
  const pid_t id = before.pid();
  KesOsMutex* mutex = mutexOf(key);
  before.end();
  KesOsMutexRelease(mutex);  // for the dead one, whose note stays
  const std::time_t then = std::time(nullptr);
  ASSERT_TRUE(eventually([then] { return std::time(nullptr) > then; })) << "the system notes seconds";
  const Shared<std::atomic<bool>> isHeld;
  const pid_t holder = startWithId(id, [&] {
    KesOsMutexWait(mutex, infinite, nullptr);
    *isHeld = true;
  });
  if (holder < 0) GTEST_SKIP() << "needs root, to choose the id of a process: " << std::strerror(errno);
  ASSERT_TRUE(eventually([&] { return isHeld->load(); }));
  EXPECT_EQ(lockWithin(mutex, 300), timedOut);
  ::kill(holder, SIGKILL);
  waitForProcess(holder);
  KesOsMutexClose(mutex);
}

TEST_F(HeldMutexTest, AHolderThatIsOutOfSightCountsAsAlive) {
  holder_.end();
  const Instead<Call::semctl> unseen([](int id, int number, int command, void* more) {
    return command == GETPID ? 0 : real<Call::semctl>(id, number, command, more);
  });
  EXPECT_EQ(lockWithin(mutex_, 300), timedOut);
}

TEST_F(HeldMutexTest, WhereNothingTellsOfProcessesThoseWithoutAnIdAreDead) {
  const Refuse noProc(Call::open, ENOENT);
  EXPECT_EQ(lockWithin(mutex_, 200), timedOut);
  holder_.endUnreaped();
  EXPECT_EQ(lockWithin(mutex_, 200), timedOut) << "it may be running";
  holder_.reap();
  EXPECT_EQ(lockWithin(mutex_, 200), holderDied);
}

TEST_F(HeldMutexTest, WhoDiesWhileItLooksAfterADeadOneIsReplaced) {
  EXPECT_EQ(lockWithin(mutex_, 0), timedOut);
  holder_.end();
  const pid_t dead = startProcess([] { return 0; });
  waitForProcess(dead);
  const Notes notes;
  notes.setRepairer(dead, 5);
  EXPECT_EQ(lockWithin(mutex_, 10'000), holderDied);
  EXPECT_EQ(notes.repairer(), 0U);
}

TEST_F(HolderTest, OneThatLooksAfterADeadOneKeepsOthersFromIt) {
  const unsigned int key = freshKey();
  Holder holder(key), other(freshKey());
  KesOsMutex* mutex = mutexOf(key);
  EXPECT_EQ(lockWithin(mutex, 0), timedOut);
  holder.end();
  const Notes notes;
  notes.setRepairer(other.pid(), 0);
  EXPECT_EQ(lockWithin(mutex, 300), timedOut);
  notes.setRepairer(other.pid(), 1);
  EXPECT_EQ(lockWithin(mutex, 300), holderDied) << "another process has its id now";
  KesOsMutexClose(mutex);
}

TEST_F(HeldMutexTest, AHolderThatReleasesAtTheLastMomentIsNotTakenForDead) {
  holder_.endUnreaped();
  // As if it had released before it died.
  const Before looked(Call::kill,
                      [&] { real<Call::semctl>(semaphoreOf(key_), 0, SETVAL, reinterpret_cast<void*>(1)); });
  EXPECT_EQ(lockWithin(mutex_, 0), timedOut);
  EXPECT_EQ(lockWithin(mutex_, 0), done);
}

TEST_F(HolderTest, AMutexWhoseMakerDiedOverItIsMadeUsable) {
  const unsigned int key = freshKey();
  const int id = ::semget(static_cast<key_t>(key), 1, IPC_CREAT | 0666);
  KesOsMutex* mutex = nullptr;
  int created = 7;
  ASSERT_EQ(KesOsMutexCreateEx(&mutex, key, &created), 1);
  EXPECT_EQ(created, 1);
  EXPECT_EQ(semaphoreOf(key), id);
  EXPECT_EQ(lockWithin(mutex, 0), done);
  KesOsMutexClose(mutex);
}

TEST_F(HolderTest, AMutexThatCannotBeMadeUsableIsOpenedAsItIs) {
  const unsigned int key = freshKey();
  ::semget(static_cast<key_t>(key), 1, IPC_CREAT | 0666);
  const Refuse refused(Call::semctl, EACCES, {.option = SETVAL});
  KesOsMutex* mutex = nullptr;
  int created = 7;
  ASSERT_EQ(KesOsMutexCreateEx(&mutex, key, &created), 1);
  EXPECT_EQ(created, 0);
  EXPECT_EQ(lockWithin(mutex, 0), timedOut);
  KesOsMutexClose(mutex);
}

TEST_F(HolderTest, AMutexThatIsBeingMadeIsWaitedFor) {
  const unsigned int key = freshKey();
  const int id = ::semget(static_cast<key_t>(key), 1, IPC_CREAT | 0666);
  const Before firstNap(Call::nanosleep,
                        [id] { real<Call::semctl>(id, 0, SETVAL, reinterpret_cast<void*>(1)); });
  KesOsMutex* mutex = nullptr;
  int created = 7;
  ASSERT_EQ(KesOsMutexCreateEx(&mutex, key, &created), 1);
  EXPECT_EQ(created, 0);
  EXPECT_EQ(lockWithin(mutex, 0), done);
  KesOsMutexClose(mutex);
}

}  // namespace
