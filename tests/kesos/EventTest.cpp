#include "kesos/events.h"

#include <pthread.h>
#include <sys/sem.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "kesos/Ipc.h"
#include "kesos/ipc.h"
#include "kesos/threads.h"
#include "support/ForkedChild.h"

namespace {

using namespace kes::test;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

class EventTest : public IpcTest {};

struct Waited {
  int result;
  unsigned int state;
  bool operator==(const Waited&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Waited& waited) {
  return out << "result " << waited.result << ", state " << waited.state;
}
constexpr Waited signalled{1, 1}, notSetLocal{0, 999}, notSetKeyed{1, 999}, error{0, 0};

Waited wait(KesOsEvent* event, unsigned int timeoutMs) {
  unsigned int state = 7;
  const int result = KesOsEventWait(event, timeoutMs, &state);
  return {result, state};
}

TEST_F(EventTest, ALocalEventResetsItselfWhenAWaitEnds) {
  KesOsEvent* event = eventOf(0);
  EXPECT_EQ(wait(event, 0), notSetLocal);
  EXPECT_EQ(KesOsEventSet(event), 1);
  EXPECT_EQ(KesOsEventSet(event), 1);
  EXPECT_EQ(wait(event, 0), signalled);
  EXPECT_EQ(wait(event, 0), notSetLocal);
  EXPECT_EQ(KesOsEventSet(event), 1);
  EXPECT_EQ(wait(event, infinite), signalled);
  EXPECT_EQ(KesOsEventClose(event), 1);
  EXPECT_FALSE(tableExists());
}

TEST_F(EventTest, AResetTakesTheSettingOfALocalEventBack) {
  KesOsEvent* event = eventOf(0);
  KesOsEventSet(event);
  EXPECT_EQ(KesOsEventReset(event), 1);
  EXPECT_EQ(wait(event, 0), notSetLocal);
  EXPECT_EQ(KesOsEventReset(event), 1);
  EXPECT_EQ(KesOsEventClose(event), 1);
}

TEST_F(EventTest, ALocalWaitTimesOutNotBeforeItsTime) {
  KesOsEvent* event = eventOf(0);
  const auto start = steady_clock::now();
  EXPECT_EQ(wait(event, 80), notSetLocal);
  // The deadline is one of the wall clock, which this test has to trust.
  EXPECT_GE(steady_clock::now() - start, milliseconds(75));
  EXPECT_EQ(KesOsEventClose(event), 1);
}

TEST_F(EventTest, SettingALocalEventReleasesEveryoneWhoWaits) {
  for (const unsigned int timeout : {infinite, 60000U}) {
    KesOsEvent* event = eventOf(0);
    std::atomic<int> began = 0, released = 0;
    std::vector<std::thread> waiters;
    for (int index = 0; index < 5; ++index) {
      waiters.emplace_back([&, timeout] {
        ++began;
        if (wait(event, timeout) == signalled) ++released;
      });
    }
    ASSERT_TRUE(eventually([&] { return began == 5; }));
    // Who has begun may not wait yet, and a late one takes the flag or waits for the next setting.
    ASSERT_TRUE(eventually([&] {
      KesOsEventSet(event);
      return released == 5;
    }));
    for (std::thread& waiter : waiters) waiter.join();
    EXPECT_EQ(KesOsEventClose(event), 1);
  }
}

void ignoreSignal(int /*signal*/) {}

TEST_F(EventTest, SignalsDoNotEndALocalWait) {
  struct sigaction action {};
  action.sa_handler = ignoreSignal;
  ::sigaction(SIGUSR1, &action, nullptr);
  KesOsEvent* event = eventOf(0);
  std::atomic<bool> ended = false;
  std::thread waiter([&] {
    EXPECT_EQ(wait(event, infinite), signalled);
    ended = true;
  });
  for (int round = 0; round < 50; ++round) {
    ::pthread_kill(waiter.native_handle(), SIGUSR1);
    std::this_thread::sleep_for(milliseconds(1));
  }
  EXPECT_FALSE(ended);
  KesOsEventSet(event);
  waiter.join();
  EXPECT_EQ(KesOsEventClose(event), 1);
}

TEST_F(EventTest, ACancelledWaiterLeavesALocalEventUsable) {
  KesOsEvent* event = eventOf(0);
  struct Waiter {
    KesOsEvent* event;
    std::atomic<bool> began;
  } arguments{event, false};
  pthread_t thread{};
  ASSERT_EQ(::pthread_create(
                &thread, nullptr,
                [](void* arg) -> void* {
                  auto* own = static_cast<Waiter*>(arg);
                  own->began = true;
                  KesOsEventWait(own->event, 0xFFFFFFFF, nullptr);
                  return nullptr;
                },
                &arguments),
            0);
  ASSERT_TRUE(eventually([&] { return arguments.began.load(); }));
  std::this_thread::sleep_for(milliseconds(20));  // most often it waits by then; either way must work
  EXPECT_EQ(::pthread_cancel(thread), 0);
  void* result = nullptr;
  EXPECT_EQ(::pthread_join(thread, &result), 0);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  EXPECT_EQ(KesOsEventSet(event), 1);
  EXPECT_EQ(wait(event, 0), signalled);
  EXPECT_EQ(KesOsEventClose(event), 1);
}

TEST_F(EventTest, AKeyedEventIsASemaphoreThatOtherProgramsSee) {
  const unsigned int key = freshKey();
  KesOsEvent* event = eventOf(key);
  EXPECT_EQ(valueOf(key), 0);
  EXPECT_EQ(wait(event, 0), notSetKeyed);
  EXPECT_EQ(KesOsEventSet(event), 1);
  EXPECT_EQ(KesOsEventSet(event), 1);
  EXPECT_EQ(valueOf(key), 1) << "it stays binary";
  EXPECT_EQ(wait(event, infinite), signalled);
  EXPECT_EQ(valueOf(key), 0);
  EXPECT_EQ(KesOsEventClose(event), 1);
  EXPECT_EQ(semaphoreOf(key), -1);
  EXPECT_FALSE(tableExists());
}

TEST_F(EventTest, ResettingAKeyedEventAddsOne) {
  const unsigned int key = freshKey();
  KesOsEvent* event = eventOf(key);
  EXPECT_EQ(KesOsEventReset(event), 1);
  EXPECT_EQ(valueOf(key), 1);
  EXPECT_EQ(KesOsEventReset(event), 1);
  EXPECT_EQ(valueOf(key), 2);
  EXPECT_EQ(wait(event, 0), signalled);
  EXPECT_EQ(wait(event, 0), signalled);
  EXPECT_EQ(wait(event, 0), notSetKeyed);
  KesOsEventClose(event);
}

TEST_F(EventTest, AnotherProgramSetsTheEventWeWaitFor) {
  const unsigned int key = freshKey();
  KesOsEvent* event = eventOf(key);
  std::thread waiter([&] { EXPECT_EQ(wait(event, infinite), signalled); });
  perlOnceSomebodyWaits(key, "semctl($id, 0, SETVAL, 1) or die;");
  waiter.join();
  EXPECT_EQ(valueOf(key), 0);
  KesOsEventClose(event);
}

TEST_F(EventTest, AFiniteTimeoutOnAKeyedEventEndsTheProcessWithStatusZero) {
  KesOsEvent* event = eventOf(freshKey());
  const ChildResult result = inChild([event] {
    KesOsEventWait(event, 250, nullptr);
    return 42;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, "Timeout in Events not supported for Darwin (your timeout=250)\n");
  EXPECT_EQ(KesOsEventClose(event), 1);
}

TEST_F(EventTest, AKeyedEventThatCannotBeSetIsReportedAndTheResultIsOne) {
  const unsigned int key = freshKey();
  KesOsEvent* event = eventOf(key);
  removeSemaphore(key);
  const ChildResult result = inChild([event] {
    std::printf("FATAL KesOsEventSet(%p): semctl failed (%d=%s pid=%u tid=%llu)\n", static_cast<void*>(event),
                EINVAL, "Invalid argument", static_cast<unsigned int>(::getpid()),
                static_cast<unsigned long long>(::gettid()));
    return KesOsEventSet(event);
  });
  EXPECT_EQ(result.exitCode(), 1);
  EXPECT_EQ(result.err, result.out);
  EXPECT_EQ(KesOsEventReset(event), 0);
  EXPECT_EQ(wait(event, infinite), error);
  EXPECT_EQ(wait(event, 0), notSetKeyed);
  EXPECT_EQ(KesOsEventClose(event), 1);
  EXPECT_FALSE(tableExists());
}

TEST_F(EventTest, OpeningNeedsAKeyAndASemaphore) {
  KesOsEvent* event = eventOf(0);
  KesOsEvent* opened = event;
  EXPECT_EQ(KesOsEventOpen(&opened, 0), 0);
  EXPECT_EQ(opened, nullptr);
  opened = event;
  EXPECT_EQ(KesOsEventOpen(&opened, freshKey()), 0);
  EXPECT_EQ(opened, nullptr);
  KesOsEventClose(event);
}

TEST_F(EventTest, NullAndAllOnesHandlesGiveZero) {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the other handle that is none
  auto* const allOnes = reinterpret_cast<KesOsEvent*>(~std::uintptr_t{0});
  EXPECT_EQ(KesOsEventCreate(nullptr, 0), 0);
  EXPECT_EQ(KesOsEventOpen(nullptr, 5), 0);
  for (KesOsEvent* event : {static_cast<KesOsEvent*>(nullptr), allOnes}) {
    EXPECT_EQ(KesOsEventClose(event), 0);
    EXPECT_EQ(KesOsEventSet(event), 0);
    EXPECT_EQ(KesOsEventReset(event), 0);
    EXPECT_EQ(wait(event, 0), error);
    EXPECT_EQ(wait(event, infinite), error);
  }
}

/// A token goes round that many times from process to process, each waiting for its own event.
void handOver(int processes, int handOvers) {
  const unsigned int key = freshKey();
  for (int index = 1; index < processes; ++index) freshKey();
  const Shared<std::atomic<bool>> ready;
  const Shared<std::atomic<int>> passed;
  const auto keyOf = [&](int index) { return key + static_cast<unsigned int>(index % processes); };
  std::vector<pid_t> pids;
  for (int index = 0; index < processes; ++index) {
    pids.push_back(startProcess([&, index] {
      KesOsEvent *own = nullptr, *next = nullptr;
      if (!eventually([&] { return ready->load(); })) return 1;
      if (KesOsEventOpen(&own, keyOf(index)) != 1 || KesOsEventOpen(&next, keyOf(index + 1)) != 1) return 2;
      for (int round = 0; round < handOvers / processes; ++round) {
        if (wait(own, infinite) != signalled) return 3;
        if (*passed != round * processes + index) return 4;
        ++*passed;
        KesOsEventSet(next);
      }
      return KesOsEventClose(own) == 1 && KesOsEventClose(next) == 1 ? 0 : 5;
    }));
  }
  std::vector<KesOsEvent*> events;
  for (int index = 0; index < processes; ++index) events.push_back(eventOf(keyOf(index)));
  *ready = true;
  KesOsEventSet(events[0]);
  for (const pid_t pid : pids) EXPECT_EQ(waitForProcess(pid), 0);
  EXPECT_EQ(*passed, handOvers / processes * processes);
  const auto count = static_cast<std::uint32_t>(processes);
  EXPECT_EQ(usage(), (Usage{1, count, count, count}));
  for (KesOsEvent* event : events) EXPECT_EQ(KesOsEventClose(event), 1);
  EXPECT_FALSE(tableExists());
}

TEST_F(EventTest, TwoProcessesHandATokenOverTenThousandTimes) { handOver(2, 10000); }

TEST_F(EventTest, SixteenProcessesHandATokenOverTenThousandTimes) { handOver(16, 10000); }

}  // namespace
