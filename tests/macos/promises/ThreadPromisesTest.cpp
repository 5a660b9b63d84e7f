// What a Mac is asked about clocks, threads and signals (tests/macos/questions.txt). Portable, so that Linux
// can show that the questions are put right.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <ctime>

#include "kesos/kesos.h"
#include "kespal/kespal.h"
#include "kespal/signal/Names.h"
#include "kespal/signal/ScopedMask.h"
#include "kespal/signal/Sender.h"
#include "kespal/thread/CoopThread.h"
#include "kespal/time/Clock.h"
#include "support/ForkedChild.h"

namespace kes {
namespace {

using std::chrono::milliseconds;
using thread::BasicThread;
using thread::CoopThread;

TEST(ThreadPromisesTest, TheUpTimeOfTheFlatLayerCountsTheSecondsOfTheMonotonicClock) {
  time::ClockBase::init();
  KesOsInit();
  const time::MonotonicClock start;
  const unsigned before = KesOsGetUpTime();
  while (KesOsGetUpTime() == before && time::MonotonicClock() < start + milliseconds(5000)) KesOsSleep(10);
  EXPECT_EQ(KesOsGetUpTime(), before + 1);
  EXPECT_LE(time::MonotonicClock(), start + milliseconds(1500));
  const std::time_t now = std::time(nullptr);
  EXPECT_LE(now - KesOsGetTimeInSec(), 1);
}

TEST(ThreadPromisesTest, ClockValuesCompareSubtractAndConvert) {
  time::ClockBase::init();
  const time::RealtimeClock now;
  const time::RealtimeClock later = now + milliseconds(1500);
  EXPECT_LT(now, later);
  EXPECT_EQ(later - now, milliseconds(1500));
  EXPECT_EQ(time::RealtimeClock(now.toSysTime()), now);
  const auto apart = std::chrono::system_clock::now() -
                     std::chrono::time_point_cast<std::chrono::microseconds>(now.toSysTime());
  EXPECT_LT(std::chrono::abs(apart), std::chrono::seconds(2));
}

struct Idler : thread::CppThread::IThread {
  void thread(thread::CppThread&) override {}
};

TEST(ThreadPromisesTest, AThreadIsHeldOrRunsAndIsBuried) {
  Idler idler;
  thread::CppThread thread("idler", &idler);
  EXPECT_EQ(thread.state(), BasicThread::BURIED);
  thread.create();
  EXPECT_EQ(thread.state(), BasicThread::CREATED);
  thread.join();
  EXPECT_EQ(thread.state(), BasicThread::BURIED);
  thread.run();
  thread.join();
  EXPECT_EQ(thread.state(), BasicThread::BURIED);
}

struct Pauser : CoopThread::ICoopThread {
  void thread(CoopThread& self) override {
    while (self.request() != CoopThread::Return) self.pause();
  }
};

TEST(ThreadPromisesTest, ACooperativeThreadPausesAndReturnsWhenAsked) {
  Pauser pauser;
  CoopThread thread("pauser", &pauser);
  thread.requestPause();
  thread.run();
  thread.waitPaused();
  EXPECT_EQ(thread.coopState(), CoopThread::Paused);
  thread.requestReturn();
  thread.waitReturned();
  thread.join();
}

TEST(ThreadPromisesTest, ASignalThatAScopeBlocksWaits) {
  const signal::Set mine{SIGUSR1};
  {
    const signal::ScopedMask blocked(mine);
    signal::Sender::signalThread(SIGUSR1, ::pthread_self());
    int signal = 0;
    ASSERT_EQ(::sigwait(&mine.native(), &signal), 0);
    EXPECT_EQ(signal::siglabel(signal), "SIGUSR1");
  }
  sigset_t now;
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, nullptr, &now), 0);
  EXPECT_FALSE(signal::Set(now).contains(SIGUSR1));
}

TEST(ThreadPromisesTest, ASignalIsTakenAsTheWishToQuitAndEndsTheProcess) {
  const test::ChildResult child = test::inChild([] {
    KesPal runtime(/*quitHandling=*/true, /*forkPending=*/false, Locale::English);
    runtime.setQuitStatus(true);
    signal::Sender::signalProc(SIGTERM, ::getpid());
    while (!runtime.quitRequested()) BasicThread::yield();
    return 0;
  });
  EXPECT_EQ(child.signal(), SIGTERM) << child.err;
}

TEST(ThreadPromisesTest, TheSignalThreadEndsThoughItsSignalWasIgnoredWhenTheProcessStarted) {
  const test::ChildResult child = test::inChild([] {
    ::signal(SIGUSR1, SIG_IGN);
    { const KesPal runtime(/*quitHandling=*/true, /*forkPending=*/false, Locale::English); }
    return 7;
  });
  EXPECT_EQ(child.exitCode(), 7) << child.err;
}

}  // namespace
}  // namespace kes
