#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

#include "kesos/Ipc.h"
#include "kesos/events.h"
#include "kesos/ipc.h"
#include "kesos/mutexes.h"
#include "kesos/time.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/Sanitizer.h"

// Waits with a limit, what a create tells, and the removal of what has a key.
namespace {

using namespace kes::test;
using std::chrono::milliseconds;

class LimitTest : public IpcTest {};

/// A mutex that somebody else holds, or an event that is not set, in one shape.
struct Wait {
  const char* name;
  std::function<int(unsigned int timeoutMs, unsigned int* state)> call;
};

/// Locks the mutex in a thread of its own and releases it when told.
class OtherThread {
 public:
  explicit OtherThread(KesOsMutex* mutex)
      : thread_([this, mutex] {
          KesOsMutexWaitEx(mutex, KESOS_INFINITE, nullptr);
          isHeld_ = true;
          while (!isToEnd_) KesOsSleep(1);
          KesOsMutexRelease(mutex);
        }) {
    EXPECT_TRUE(eventually([this] { return isHeld_.load(); }));
  }
  ~OtherThread() {
    release();
    thread_.join();
  }
  OtherThread(const OtherThread&) = delete;
  OtherThread& operator=(const OtherThread&) = delete;

  void release() { isToEnd_ = true; }

 private:
  std::atomic<bool> isHeld_ = false, isToEnd_ = false;
  std::thread thread_;
};

TEST_F(LimitTest, AWaitIsGivenUpWhenItsTimeIsOverAndNotBefore) {
  KesOsMutex *local = mutexOf(0), *keyed = mutexOf(freshKey());
  KesOsEvent *localEvent = eventOf(0), *keyedEvent = eventOf(freshKey());
  {
    const OtherThread one(local), two(keyed);
    const Wait waits[] = {
        {"local mutex",
         [&](unsigned int limit, unsigned int* state) { return KesOsMutexWaitEx(local, limit, state); }},
        {"keyed mutex",
         [&](unsigned int limit, unsigned int* state) { return KesOsMutexWaitEx(keyed, limit, state); }},
        {"local event",
         [&](unsigned int limit, unsigned int* state) { return KesOsEventWaitEx(localEvent, limit, state); }},
        {"keyed event", [&](unsigned int limit, unsigned int* state) {
           return KesOsEventWaitEx(keyedEvent, limit, state);
         }}};
    for (const auto& [name, call] : waits) {
      for (const unsigned int limit : {0U, 1U, 150U}) {
        unsigned int state = 7;
        errno = 0;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(call(limit, &state), 0) << name;
        EXPECT_EQ(errno, ETIMEDOUT) << name;
        EXPECT_EQ(state, unsigned{KESOS_WAIT_TIMED_OUT}) << name;
        EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(limit)) << name;
        EXPECT_EQ(call(limit, nullptr), 0) << name << ": the state is not asked for";
      }
    }
  }
  KesOsMutexClose(local);
  KesOsMutexClose(keyed);
  KesOsEventClose(localEvent);
  KesOsEventClose(keyedEvent);
}

TEST_F(LimitTest, WhatIsHadInTimeIsTold) {
  for (const unsigned int key : {0U, freshKey()}) {
    for (const unsigned int limit : {60'000U, KESOS_INFINITE}) {
      KesOsMutex* mutex = mutexOf(key);
      KesOsEvent* event = eventOf(key == 0 ? 0 : freshKey());
      unsigned int state = 7;
      EXPECT_EQ(KesOsMutexWaitEx(mutex, limit, &state), 1);
      EXPECT_EQ(state, unsigned{KESOS_WAIT_DONE});
      EXPECT_EQ(KesOsMutexRelease(mutex), 1);
      std::thread setter([event] { KesOsEventSet(event); });
      EXPECT_EQ(KesOsEventWaitEx(event, limit, &state), 1);
      EXPECT_EQ(state, unsigned{KESOS_WAIT_DONE});
      setter.join();
      EXPECT_EQ(KesOsEventWaitEx(event, 0, &state), 0) << "it resets itself";
      KesOsMutexClose(mutex);
      KesOsEventClose(event);
    }
  }
}

TEST_F(LimitTest, AMutexThatAnotherThreadReleasesIsHadInTime) {
  KES_SKIP_UNDER_THREAD_SANITIZER("does not know a lock of this kind (pthread_mutex_clocklock)");
  for (const unsigned int key : {0U, freshKey()}) {
    KesOsMutex* mutex = mutexOf(key);
    {
      OtherThread other(mutex);
      std::thread releaser([&other] {
        KesOsSleep(20);
        other.release();
      });
      unsigned int state = 7;
      EXPECT_EQ(KesOsMutexWaitEx(mutex, 60'000, &state), 1);
      EXPECT_EQ(state, unsigned{KESOS_WAIT_DONE});
      EXPECT_EQ(KesOsMutexRelease(mutex), 1);
      releaser.join();
    }
    KesOsMutexClose(mutex);
  }
}

TEST_F(LimitTest, ALocalMutexIsRecursiveHereToo) {
  KesOsMutex* mutex = mutexOf(0);
  EXPECT_EQ(KesOsMutexWait(mutex, infinite, nullptr), 1);
  EXPECT_EQ(KesOsMutexWaitEx(mutex, 0, nullptr), 1);
  EXPECT_EQ(KesOsMutexRelease(mutex), 1);
  EXPECT_EQ(KesOsMutexRelease(mutex), 1);
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
}

TEST_F(LimitTest, EveryWaiterOfALocalEventIsReleased) {
  KesOsEvent* event = eventOf(0);
  std::atomic<int> waiting = 0, released = 0;
  std::vector<std::thread> threads;
  for (int count = 0; count < 4; ++count) {
    threads.emplace_back([&] {
      ++waiting;
      // One that comes too late for the setting waits for the next.
      if (KesOsEventWaitEx(event, 60'000, nullptr) == 1) ++released;
    });
  }
  ASSERT_TRUE(eventually([&] { return waiting == 4; }));
  ASSERT_TRUE(eventually([&] {
    KesOsEventSet(event);
    return released == 4;
  }));
  for (std::thread& thread : threads) thread.join();
  KesOsEventClose(event);
}

TEST_F(LimitTest, AnotherProcessSetsAKeyedEventThatIsWaitedFor) {
  const unsigned int key = freshKey();
  KesOsEvent* event = eventOf(key);
  const pid_t setter = startProcess([key] { return KesOsEventSet(eventOf(key)) == 1 ? 0 : 1; });
  EXPECT_EQ(KesOsEventWaitEx(event, 60'000, nullptr), 1);
  EXPECT_EQ(waitForProcess(setter), 0);
  KesOsEventClose(event);
}

void ignoreSignal(int /*signal*/) {}

TEST_F(LimitTest, SignalsEndNoWaitAndTakeNothingFromItsTime) {
  const unsigned int key = freshKey();
  const ChildResult result = inChild([key] {
    struct sigaction action {};
    action.sa_handler = ignoreSignal;
    ::sigaction(SIGALRM, &action, nullptr);
    KesOsEvent* event = eventOf(key);
    const itimerval often{{0, 20'000}, {0, 20'000}};
    ::setitimer(ITIMER_REAL, &often, nullptr);
    const auto start = std::chrono::steady_clock::now();
    if (KesOsEventWaitEx(event, 300, nullptr) != 0 || errno != ETIMEDOUT) return 1;
    const auto took = std::chrono::steady_clock::now() - start;
    if (took < milliseconds(300)) return 2;
    const itimerval never{};
    ::setitimer(ITIMER_REAL, &never, nullptr);
    KesOsEventClose(event);
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST_F(LimitTest, AProcessThatShutsDownWaitsNoMore) {
  const unsigned int mutexKey = freshKey(), eventKey = freshKey();
  const ChildResult result = inChild([=] {
    KesOsMutex* mutex = mutexOf(mutexKey);
    KesOsEvent* event = eventOf(eventKey);
    if (KesOsMutexWaitEx(mutex, 0, nullptr) != 1) return 1;
    KesOsSetShutdown();
    if (KesOsMutexWaitEx(mutex, KESOS_INFINITE, nullptr) != 0 || errno != EINTR) return 2;
    const Refuse interrupted(Call::semtimedop, EINTR, once);
    unsigned int state = 7;
    if (KesOsEventWaitEx(event, KESOS_INFINITE, &state) != 0 || errno != EINTR || state != 0) return 3;
    KesOsMutexClose(mutex);
    KesOsEventClose(event);
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST_F(LimitTest, AWaitThatFailsSaysWhy) {
  KesOsMutex* mutex = mutexOf(freshKey());
  KesOsEvent* event = eventOf(freshKey());
  for (const int error : {EIDRM, EACCES, EINVAL}) {
    const Refuse refused(Call::semtimedop, error);
    unsigned int state = 7;
    EXPECT_EQ(KesOsMutexWaitEx(mutex, 100, &state), 0);
    EXPECT_EQ(errno, error);
    EXPECT_EQ(state, unsigned{KESOS_WAIT_FAILED});
    EXPECT_EQ(KesOsEventWaitEx(event, KESOS_INFINITE, &state), 0);
    EXPECT_EQ(errno, error);
    EXPECT_EQ(state, unsigned{KESOS_WAIT_FAILED});
  }
  KesOsMutexClose(mutex);
  KesOsEventClose(event);
  KesOsMutex* local = mutexOf(0);
  {
    const OtherThread other(local);
    const Refuse refused(Call::pthread_mutex_clocklock, EAGAIN);
    unsigned int state = 7;
    EXPECT_EQ(KesOsMutexWaitEx(local, 100, &state), 0);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(state, unsigned{KESOS_WAIT_FAILED});
  }
  KesOsMutexClose(local);
}

TEST_F(LimitTest, NoHandleIsAnAnswer) {
  auto* const noMutex = reinterpret_cast<KesOsMutex*>(UINTPTR_MAX);
  auto* const noEvent = reinterpret_cast<KesOsEvent*>(UINTPTR_MAX);
  for (KesOsMutex* mutex : {static_cast<KesOsMutex*>(nullptr), noMutex}) {
    unsigned int state = 7;
    EXPECT_EQ(KesOsMutexWaitEx(mutex, 0, &state), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(state, unsigned{KESOS_WAIT_FAILED});
  }
  for (KesOsEvent* event : {static_cast<KesOsEvent*>(nullptr), noEvent}) {
    EXPECT_EQ(KesOsEventWaitEx(event, 0, nullptr), 0);
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_EQ(KesOsMutexCreateEx(nullptr, 0, nullptr), 0);
  EXPECT_EQ(KesOsMutexCreateEx(nullptr, freshKey(), nullptr), 0);
  EXPECT_EQ(KesOsEventCreateEx(nullptr, 0, nullptr), 0);
}

TEST_F(LimitTest, ACreateTellsWhetherItMadeOrOpened) {
  const unsigned int mutexKey = freshKey(), eventKey = freshKey();
  KesOsMutex *mutex = nullptr, *sameMutex = nullptr, *local = nullptr;
  int created = 7;
  ASSERT_EQ(KesOsMutexCreateEx(&mutex, mutexKey, &created), 1);
  EXPECT_EQ(created, 1);
  ASSERT_EQ(KesOsMutexWait(mutex, infinite, nullptr), 1);
  ASSERT_EQ(KesOsMutexCreateEx(&sameMutex, mutexKey, &created), 1);
  EXPECT_EQ(created, 0);
  EXPECT_EQ(valueOf(mutexKey), 0) << "an open leaves it as it is";
  ASSERT_EQ(KesOsMutexCreateEx(&local, 0, &created), 1);
  EXPECT_EQ(created, 1);
  KesOsEvent *event = nullptr, *sameEvent = nullptr;
  ASSERT_EQ(KesOsEventCreateEx(&event, eventKey, &created), 1);
  EXPECT_EQ(created, 1);
  EXPECT_EQ(KesOsEventWaitEx(event, 0, nullptr), 0);
  KesOsEventSet(event);
  ASSERT_EQ(KesOsEventCreateEx(&sameEvent, eventKey, &created), 1);
  EXPECT_EQ(created, 0);
  EXPECT_EQ(KesOsEventWaitEx(sameEvent, 0, nullptr), 1) << "it is still set";
  EXPECT_EQ(slotCount(semaphoreOf(mutexKey)), 2U);
  for (KesOsMutex* each : {mutex, sameMutex, local}) EXPECT_EQ(KesOsMutexClose(each), 1);
  for (KesOsEvent* each : {event, sameEvent}) EXPECT_EQ(KesOsEventClose(each), 1);
  EXPECT_FALSE(tableExists());
}

TEST_F(LimitTest, ACreateThatFailsLeavesNoHandle) {
  const Refuse refused(Call::semget, ENOSPC);
  int created = 7;
  auto* mutex = reinterpret_cast<KesOsMutex*>(UINTPTR_MAX);
  EXPECT_EQ(KesOsMutexCreateEx(&mutex, freshKey(), &created), 0);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(mutex, nullptr);
  auto* event = reinterpret_cast<KesOsEvent*>(UINTPTR_MAX);
  EXPECT_EQ(KesOsEventCreateEx(&event, freshKey(), &created), 0);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(event, nullptr);
  EXPECT_EQ(created, 7);
}

TEST_F(LimitTest, WhatIsRemovedByItsKeyEndsWaitsAndIsMadeAnew) {
  const unsigned int key = freshKey();
  KesOsMutex* mutex = mutexOf(key);
  ASSERT_EQ(KesOsMutexWaitEx(mutex, 0, nullptr), 1);
  const pid_t waiter = startProcess([key] {
    const bool failed = KesOsMutexWaitEx(mutexOf(key), KESOS_INFINITE, nullptr) == 0;
    return failed && (errno == EIDRM || errno == EINVAL) ? 0 : 1;
  });
  ASSERT_TRUE(eventually([id = semaphoreOf(key)] { return ::semctl(id, 0, GETNCNT) > 0; }));
  EXPECT_EQ(KesOsRemoveKeyed(key), 1);
  EXPECT_EQ(waitForProcess(waiter), 0);
  EXPECT_EQ(KesOsRemoveKeyed(key), 0);
  EXPECT_EQ(errno, ENOENT);
  KesOsMutex* next = nullptr;
  int created = 7;
  ASSERT_EQ(KesOsMutexCreateEx(&next, key, &created), 1);
  EXPECT_EQ(created, 1);
  EXPECT_EQ(KesOsMutexWaitEx(next, 0, nullptr), 1);
  EXPECT_EQ(KesOsMutexClose(mutex), 1) << "the old handle is closed as always";
  EXPECT_EQ(KesOsMutexClose(next), 1);
  EXPECT_EQ(semaphoreOf(key), -1);
}

TEST_F(LimitTest, NothingIsLeftOfTheDeadWhenTheirObjectIsRemoved) {
  const unsigned int key = freshKey();
  const pid_t user = startProcess([key] {
    KesOsMutexWaitEx(mutexOf(key), KESOS_INFINITE, nullptr);
    ::kill(::getpid(), SIGKILL);
    return 0;
  });
  EXPECT_EQ(waitForProcess(user), 128 + SIGKILL);
  EXPECT_TRUE(tableExists());
  EXPECT_EQ(KesOsRemoveKeyed(key), 1);
  EXPECT_EQ(semaphoreOf(key), -1);
  EXPECT_FALSE(tableExists());
}

TEST_F(LimitTest, ARemovalThatIsNotPermittedSaysSo) {
  EXPECT_EQ(KesOsRemoveKeyed(0), 0);
  EXPECT_EQ(errno, EINVAL);
  const unsigned int key = freshKey();
  KesOsEvent* event = eventOf(key);
  const Refuse refused(Call::semctl, EPERM, {.option = IPC_RMID});
  EXPECT_EQ(KesOsRemoveKeyed(key), 0);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(KesOsEventClose(event), 1);
  ::semctl(semaphoreOf(key), 0, IPC_RMID);
}

}  // namespace
