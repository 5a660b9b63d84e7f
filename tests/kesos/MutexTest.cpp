#include "kesos/mutexes.h"

#include <sys/sem.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "kesos/Ipc.h"
#include "kesos/ipc.h"
#include "kesos/time.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/Sanitizer.h"

namespace {

using namespace kes::test;

class MutexTest : public IpcTest {};

/// Whether the mutex can be had at once.
bool tryLock(KesOsMutex* mutex) {
  unsigned int state = 7;
  return KesOsMutexWait(mutex, 0, &state) == 1 && state == 1;
}

TEST_F(MutexTest, ALocalMutexIsRecursive) {
  KES_SKIP_UNDER_THREAD_SANITIZER("reports the misuse of a lock that is tested here");
  KesOsMutex* mutex = mutexOf(0);
  unsigned int state = 7;
  EXPECT_EQ(KesOsMutexWait(mutex, infinite, &state), 1);
  EXPECT_EQ(state, 1U);
  EXPECT_EQ(KesOsMutexWait(mutex, infinite, nullptr), 1);
  EXPECT_EQ(KesOsMutexRelease(mutex), 1);
  EXPECT_EQ(KesOsMutexRelease(mutex), 1);
  EXPECT_EQ(KesOsMutexRelease(mutex), 0) << "it is not ours any more";
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
  EXPECT_FALSE(tableExists()) << "a local mutex needs no table";
}

TEST_F(MutexTest, ALocalMutexKeepsOthersOut) {
  KesOsMutex* mutex = mutexOf(0);
  int shared = 0;
  const auto work = [&] {
    for (int round = 0; round < 10000; ++round) {
      KesOsMutexWait(mutex, infinite, nullptr);
      ++shared;
      KesOsMutexRelease(mutex);
    }
  };
  std::thread one(work), two(work);
  one.join();
  two.join();
  EXPECT_EQ(shared, 20000);
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
}

TEST_F(MutexTest, ClosingALocalMutexWaitsUntilNobodyHoldsIt) {
  KesOsMutex* mutex = mutexOf(0);
  std::atomic<bool> held = false, release = false, closed = false;
  std::thread holder([&] {
    KesOsMutexWait(mutex, infinite, nullptr);
    held = true;
    while (!release) KesOsSleep(1);
    EXPECT_FALSE(closed);
    KesOsMutexRelease(mutex);
  });
  ASSERT_TRUE(eventually([&] { return held.load(); }));
  std::thread closer([&] {
    EXPECT_EQ(KesOsMutexClose(mutex), 1);
    closed = true;
  });
  KesOsSleep(20);
  release = true;
  holder.join();
  closer.join();
}

TEST_F(MutexTest, ACloseThatIsCancelledLeavesTheMutexToItsHolder) {
  KES_SKIP_UNDER_SANITIZERS("does not follow the unwinding of a cancelled thread");
  KesOsMutex* mutex = mutexOf(0);
  ASSERT_EQ(KesOsMutexWait(mutex, infinite, nullptr), 1);
  pthread_t closer{};
  const auto close = [](void* arg) -> void* {
    KesOsMutexClose(static_cast<KesOsMutex*>(arg));
    return nullptr;
  };
  ASSERT_EQ(::pthread_create(&closer, nullptr, close, mutex), 0);
  ::pthread_cancel(closer);
  void* end = nullptr;
  ASSERT_EQ(::pthread_join(closer, &end), 0);
  EXPECT_EQ(end, PTHREAD_CANCELED);
  EXPECT_EQ(KesOsMutexRelease(mutex), 1);
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
}

TEST_F(MutexTest, ACancellationWaitsForTheEndOfAKeyedWait) {
  KES_SKIP_UNDER_THREAD_SANITIZER("has cancellations of its own");
  struct Waiter {
    KesOsMutex* mutex;
    unsigned int state = 7;
  };
  const unsigned int key = freshKey();
  Waiter waiter{mutexOf(key)};
  ASSERT_TRUE(tryLock(waiter.mutex));
  const auto wait = [](void* arg) -> void* {
    auto& own = *static_cast<Waiter*>(arg);
    KesOsMutexWait(own.mutex, infinite, &own.state);
    int ignored = 0;
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &ignored);
    return nullptr;
  };
  pthread_t thread{};
  ASSERT_EQ(::pthread_create(&thread, nullptr, wait, &waiter), 0);
  ASSERT_TRUE(eventually([id = semaphoreOf(key)] { return ::semctl(id, 0, GETNCNT) > 0; }));
  ::pthread_cancel(thread);
  EXPECT_EQ(KesOsMutexRelease(waiter.mutex), 1);
  void* end = nullptr;
  ASSERT_EQ(::pthread_join(thread, &end), 0);
  EXPECT_EQ(end, nullptr);
  EXPECT_EQ(waiter.state, 1U);
  KesOsMutexClose(waiter.mutex);
}

TEST_F(MutexTest, AFiniteTimeoutOnALocalMutexEndsTheProcess) {
  for (const unsigned int timeout : {0U, 1U, 5000U, 0xFFFFFFFEU}) {
    const ChildResult result = inChild([timeout] {
      static KesOsMutex* mutex = mutexOf(0);
      KesOsMutexWait(mutex, timeout, nullptr);
      return 42;
    });
    EXPECT_EQ(result.exitCode(), 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "KesOsMutexWait - invalid timeout, only infinite supported for local pthread based mutexes.\n");
  }
}

TEST_F(MutexTest, AFiniteTimeoutOnAKeyedMutexEndsTheProcessWithStatusZero) {
  const std::pair<unsigned int, const char*> cases[] = {
      {5000U, "5000"}, {1U, "1"}, {0xFFFFFFFEU, "-2"}, {0x80000000U, "-2147483648"}};
  for (const auto& [timeout, text] : cases) {
    const unsigned int key = freshKey();
    KesOsMutex* mutex = mutexOf(key);
    const ChildResult result = inChild([mutex, span = timeout] {
      KesOsMutexWait(mutex, span, nullptr);
      return 42;
    });
    EXPECT_EQ(result.exitCode(), 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out,
              "Timeout in Events not supported for Darwin (your timeout=" + std::string(text) + ")\n");
    EXPECT_EQ(valueOf(key), 1) << "nothing was taken";
    EXPECT_EQ(KesOsMutexClose(mutex), 1);
  }
}

TEST_F(MutexTest, AKeyedMutexIsASemaphoreThatOtherProgramsSee) {
  const unsigned int key = freshKey();
  KesOsMutex* mutex = mutexOf(key);
  EXPECT_EQ(valueOf(key), 1);
  const int semid = semaphoreOf(key);
  EXPECT_EQ(KesOsSemaphoreVal(semid), 1);
  unsigned int state = 7;
  EXPECT_EQ(KesOsMutexWait(mutex, infinite, &state), 1);
  EXPECT_EQ(state, 1U);
  EXPECT_EQ(valueOf(key), 0);
  EXPECT_EQ(KesOsMutexWait(mutex, 0, &state), 1);
  EXPECT_EQ(state, 999U) << "not recursive";
  EXPECT_EQ(KesOsMutexRelease(mutex), 1);
  EXPECT_EQ(valueOf(key), 1);
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
  EXPECT_EQ(semaphoreOf(key), -1);
  EXPECT_EQ(KesOsSemaphoreVal(semid), -1);
}

TEST_F(MutexTest, ReleasingAKeyedMutexTwiceLeavesItsValueAtOne) {
  const unsigned int key = freshKey();
  KesOsMutex* mutex = mutexOf(key);
  KesOsMutexWait(mutex, infinite, nullptr);
  EXPECT_EQ(KesOsMutexRelease(mutex), 1);
  EXPECT_EQ(KesOsMutexRelease(mutex), 1);
  EXPECT_EQ(valueOf(key), 1);
  EXPECT_TRUE(tryLock(mutex));
  EXPECT_FALSE(tryLock(mutex));
  KesOsMutexClose(mutex);
}

TEST_F(MutexTest, TwoReleasesAtOnceAddOnlyOne) {
  const unsigned int key = freshKey();
  KesOsMutex* mutex = mutexOf(key);
  for (int round = 0; round < 300; ++round) {
    ASSERT_TRUE(tryLock(mutex));
    std::thread other([&] { EXPECT_EQ(KesOsMutexRelease(mutex), 1); });
    EXPECT_EQ(KesOsMutexRelease(mutex), 1);
    other.join();
    ASSERT_EQ(KesOsSemaphoreVal(semaphoreOf(key)), 1);
  }
  KesOsMutexClose(mutex);
}

TEST_F(MutexTest, AnotherProgramReleasesWhatWeWaitFor) {
  const unsigned int key = freshKey();
  KesOsMutex* mutex = mutexOf(key);
  ASSERT_TRUE(tryLock(mutex));
  unsigned int state = 7;
  std::thread waiter([&] { EXPECT_EQ(KesOsMutexWait(mutex, infinite, &state), 1); });
  perlOnceSomebodyWaits(key, "semop($id, pack(\"s3\", 0, 1, 0)) or die;");
  waiter.join();
  EXPECT_EQ(state, 1U);
  EXPECT_EQ(valueOf(key), 0);
  KesOsMutexClose(mutex);
}

TEST_F(MutexTest, OpeningNeedsAKeyAndASemaphore) {
  KesOsMutex* mutex = mutexOf(0);
  KesOsMutex* opened = mutex;
  EXPECT_EQ(KesOsMutexOpen(&opened, 0), 0);
  EXPECT_EQ(opened, nullptr);
  opened = mutex;
  EXPECT_EQ(KesOsMutexOpen(&opened, freshKey()), 0);
  EXPECT_EQ(opened, nullptr);
  EXPECT_FALSE(tableExists());
  KesOsMutexClose(mutex);
}

TEST_F(MutexTest, AnotherProcessOpensTheMutexByItsKey) {
  const unsigned int key = freshKey();
  const Shared<std::atomic<bool>> bothSeen;
  const pid_t holder = startProcess([key, &bothSeen] {
    KesOsMutex* mutex = mutexOf(key);
    if (!tryLock(mutex)) return 1;
    if (!eventually([&bothSeen] { return bothSeen->load(); })) return 2;
    KesOsMutexRelease(mutex);
    return KesOsMutexClose(mutex) == 1 ? 0 : 3;
  });
  // A semaphore is made with the value 0, too: only one that is in the table is locked by its holder.
  ASSERT_TRUE(
      eventually([key] { return tableExists() && slotCount(semaphoreOf(key)) == 1 && valueOf(key) == 0; }));
  KesOsMutex* mutex = nullptr;
  ASSERT_EQ(KesOsMutexOpen(&mutex, key), 1);
  EXPECT_EQ(slotCount(semaphoreOf(key)), 2U);
  EXPECT_EQ(usage().processes, 2U);
  *bothSeen = true;
  EXPECT_EQ(KesOsMutexWait(mutex, infinite, nullptr), 1);
  EXPECT_EQ(waitForProcess(holder), 0);
  EXPECT_EQ(slotCount(semaphoreOf(key)), 1U);
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
  EXPECT_EQ(semaphoreOf(key), -1);
  EXPECT_FALSE(tableExists());
}

TEST_F(MutexTest, AHolderThatIsKilledLeavesTheMutexLockedAndAnyoneMayReleaseIt) {
  const unsigned int key = freshKey();
  const pid_t holder = startProcess([key] {
    KesOsMutexWait(mutexOf(key), infinite, nullptr);
    for (;;) ::pause();
    return 0;
  });
  // A semaphore is made with the value 0, too: only one that is in the table is locked by its holder.
  ASSERT_TRUE(
      eventually([key] { return tableExists() && slotCount(semaphoreOf(key)) == 1 && valueOf(key) == 0; }));
  KesOsMutex* mutex = mutexOf(key);
  ::kill(holder, SIGKILL);
  EXPECT_EQ(waitForProcess(holder), 128 + SIGKILL);
  EXPECT_FALSE(tryLock(mutex));
  EXPECT_EQ(KesOsMutexRelease(mutex), 1);
  EXPECT_TRUE(tryLock(mutex));
  EXPECT_EQ(slotCount(semaphoreOf(key)), 2U) << "the dead process's reference stays";
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
  // Its reference keeps the semaphore; a program that knows better removes it.
  removeSemaphore(key);
  EXPECT_FALSE(tableExists()) << "the last process that is alive removes the table";
}

TEST_F(MutexTest, ASemaphoreThatIsRemovedMakesWaitsFail) {
  const unsigned int key = freshKey();
  KesOsMutex* mutex = mutexOf(key);
  ASSERT_TRUE(tryLock(mutex));
  unsigned int state = 7;
  std::thread waiter([&] { EXPECT_EQ(KesOsMutexWait(mutex, infinite, &state), 0); });
  perlOnceSomebodyWaits(key, "semctl($id, 0, IPC_RMID, 0) or die;");
  waiter.join();
  EXPECT_EQ(state, 0U);
  EXPECT_EQ(KesOsMutexWait(mutex, 0, &state), 1) << "trying once never fails";
  EXPECT_EQ(state, 999U);
  EXPECT_EQ(KesOsMutexRelease(mutex), 0);
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
  EXPECT_FALSE(tableExists());
}

void ignoreSignal(int /*signal*/) {}

TEST_F(MutexTest, AKeyedWaitGoesOnAfterASignalAndEndsWhenTheProcessShutsDown) {
  const unsigned int key = freshKey();
  const ChildResult result = inChild([key] {
    struct sigaction action {};
    action.sa_handler = ignoreSignal;
    ::sigaction(SIGUSR1, &action, nullptr);
    KesOsMutex* mutex = mutexOf(key);
    if (!tryLock(mutex)) return 1;
    unsigned int state = 7;
    int waited = 7;
    std::atomic<bool> ended = false;
    std::thread waiter([&] {
      waited = KesOsMutexWait(mutex, infinite, &state);
      ended = true;
    });
    const auto attempts = [before = made(Call::semop)](int count) {
      return eventually([=] { return made(Call::semop) >= before + count; });
    };
    const auto waits = [id = semaphoreOf(key)] { return ::semctl(id, 0, GETNCNT) > 0; };
    if (!eventually(waits)) return 2;
    ::pthread_kill(waiter.native_handle(), SIGUSR1);
    if (!attempts(1) || !eventually(waits) || ended) return 3;
    KesOsSetShutdown();
    ::pthread_kill(waiter.native_handle(), SIGUSR1);
    waiter.join();
    if (waited != 0 || state != 0) return 4;
    return KesOsMutexClose(mutex) == 1 ? 0 : 5;
  });
  EXPECT_EQ(result.exitCode(), 0) << result.err;
}

TEST_F(MutexTest, AnInterruptedWaitIsTriedAgainAfterFiftyMilliseconds) {
  KesOsMutex* mutex = mutexOf(freshKey());
  for (const unsigned int timeout : {0U, infinite}) {
    unsigned int state = 7;
    const int attempts = made(Call::semop);
    const auto start = std::chrono::steady_clock::now();
    const Refuse refused(Call::semop, EINTR, once);
    EXPECT_EQ(KesOsMutexWait(mutex, timeout, &state), 1);
    EXPECT_EQ(state, 1U);
    EXPECT_EQ(made(Call::semop), attempts + 2);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
    EXPECT_EQ(KesOsMutexRelease(mutex), 1);
  }
  KesOsMutexClose(mutex);
}

TEST_F(MutexTest, AnInterruptedWaitOfAProcessThatShutsDownIsGivenUp) {
  KesOsMutex* mutex = mutexOf(freshKey());
  KesOsSetShutdown();
  unsigned int state = 7;
  const Refuse refused(Call::semop, EINTR, once);
  EXPECT_EQ(KesOsMutexWait(mutex, infinite, &state), 0);
  EXPECT_EQ(state, 0U);
  const Refuse again(Call::semop, EINTR, once);
  EXPECT_EQ(KesOsMutexWait(mutex, 0, &state), 1);
  EXPECT_EQ(state, 999U);
  KesOsSetSystemUp();
  KesOsMutexClose(mutex);
}

TEST_F(MutexTest, AWaitEndsWhenTheProcessBeginsToShutDownDuringTheNap) {
  KesOsMutex* mutex = mutexOf(freshKey());
  for (const unsigned int timeout : {0U, infinite}) {
    unsigned int state = 7;
    const int attempts = made(Call::semop);
    const Refuse refused(Call::semop, EINTR, once);
    const Before napping(Call::nanosleep, KesOsSetShutdown);
    EXPECT_EQ(KesOsMutexWait(mutex, timeout, &state), timeout == 0 ? 1 : 0);
    EXPECT_EQ(state, timeout == 0 ? 999U : 0U);
    EXPECT_EQ(made(Call::semop), attempts + 1) << "not tried again, although it could be had";
    KesOsSetSystemUp();
    KesOsMutexRelease(mutex);
  }
  KesOsMutexClose(mutex);
}

TEST_F(MutexTest, AWaitThatFailsSaysFailedOrTimedOut) {
  struct Failure {
    unsigned int timeout;
    int error, result;
    unsigned int state;
  };
  KesOsMutex* mutex = mutexOf(freshKey());
  for (const auto& [timeout, error, result, expected] : {Failure{infinite, EAGAIN, 1, 999},
                                                         {infinite, EIDRM, 0, 0},
                                                         {infinite, EACCES, 0, 0},
                                                         {0, EAGAIN, 1, 999},
                                                         {0, EIDRM, 1, 999},
                                                         {0, EACCES, 1, 999}}) {
    unsigned int state = 7;
    const Refuse refused(Call::semop, error, once);
    EXPECT_EQ(KesOsMutexWait(mutex, timeout, &state), result) << timeout << ' ' << error;
    EXPECT_EQ(state, expected) << timeout << ' ' << error;
    const Refuse again(Call::semop, error, once);
    EXPECT_EQ(KesOsMutexWait(mutex, timeout, nullptr), result) << "the state is not asked for";
  }
  KesOsMutexClose(mutex);
}

TEST_F(MutexTest, AReleaseThatFailsGivesZero) {
  KesOsMutex* mutex = mutexOf(freshKey());
  ASSERT_TRUE(tryLock(mutex));
  const Refuse refused(Call::semop, EACCES, once);
  EXPECT_EQ(KesOsMutexRelease(mutex), 0);
  EXPECT_FALSE(tryLock(mutex));
  KesOsMutexClose(mutex);
}

TEST_F(MutexTest, ARoundOfAKeyedMutexIsTwoSystemCalls) {
  KesOsMutex* mutex = mutexOf(freshKey());
  const int semops = made(Call::semop), semctls = made(Call::semctl);
  KesOsMutexWait(mutex, infinite, nullptr);
  KesOsMutexRelease(mutex);
  EXPECT_EQ(made(Call::semop), semops + 2);
  EXPECT_EQ(made(Call::semctl), semctls);
  KesOsMutexClose(mutex);
}

TEST_F(MutexTest, NullHandlesGiveZero) {
  unsigned int state = 7;
  EXPECT_EQ(KesOsMutexCreate(nullptr, 0), 0);
  EXPECT_EQ(KesOsMutexCreate(nullptr, 5), 0);
  EXPECT_EQ(KesOsMutexOpen(nullptr, 5), 0);
  EXPECT_EQ(KesOsMutexWait(nullptr, infinite, &state), 0);
  EXPECT_EQ(state, 0U);
  EXPECT_EQ(KesOsMutexWait(nullptr, 5, nullptr), 0);
  EXPECT_EQ(KesOsMutexRelease(nullptr), 0);
  EXPECT_EQ(KesOsMutexClose(nullptr), 0);
}

TEST_F(MutexTest, ThreadsThatCreateAndCloseOneKeyAtOnceAllGetAMutexThatWorks) {
  const unsigned int key = freshKey();
  std::atomic<int> failures = 0;
  const auto storm = [&] {
    for (int round = 0; round < 500; ++round) {
      KesOsMutex* mutex = nullptr;
      unsigned int state = 0;
      if (KesOsMutexCreate(&mutex, key) != 1) {
        ++failures;
        continue;
      }
      if (KesOsMutexWait(mutex, infinite, &state) != 1 || state != 1) ++failures;
      if (KesOsMutexRelease(mutex) != 1) ++failures;
      if (KesOsMutexClose(mutex) != 1) ++failures;
    }
  };
  std::vector<std::thread> threads;
  for (int index = 0; index < 4; ++index) threads.emplace_back(storm);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(semaphoreOf(key), -1);
  EXPECT_FALSE(tableExists());
}

/// Every process takes the lock that many times around an increment that is not atomic.
void excludeEachOther(int processes, int rounds) {
  struct Race {
    std::atomic<bool> ready;
    volatile long counter;
  };
  const unsigned int key = freshKey();
  const Shared<Race> race;
  std::vector<pid_t> pids;
  for (int index = 0; index < processes; ++index) {
    pids.push_back(startProcess([&] {
      KesOsMutex* mutex = nullptr;
      if (!eventually([&] { return race->ready.load(); }) || KesOsMutexOpen(&mutex, key) != 1) return 1;
      for (int round = 0; round < rounds; ++round) {
        unsigned int state = 0;
        if (KesOsMutexWait(mutex, infinite, &state) != 1 || state != 1) return 2;
        race->counter = race->counter + 1;
        if (KesOsMutexRelease(mutex) != 1) return 3;
      }
      return KesOsMutexClose(mutex) == 1 ? 0 : 4;
    }));
  }
  KesOsMutex* mutex = mutexOf(key);
  race->ready = true;
  for (const pid_t pid : pids) EXPECT_EQ(waitForProcess(pid), 0);
  EXPECT_EQ(race->counter, static_cast<long>(processes) * rounds);
  EXPECT_EQ(usage(), (Usage{1, 1, 1, 1}));
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
  EXPECT_EQ(semaphoreOf(key), -1);
  EXPECT_FALSE(tableExists());
}

TEST_F(MutexTest, TwoProcessesExcludeEachOtherTenThousandTimes) { excludeEachOther(2, 10000); }

TEST_F(MutexTest, SixteenProcessesExcludeEachOtherTenThousandTimes) { excludeEachOther(16, 10000); }

}  // namespace
