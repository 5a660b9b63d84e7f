#include "kesos/time.h"

#include <signal.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <thread>
#include <utility>

#include "kespal/time/Clock.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"

// Process-wide values and the deadline of timed waits, which the layer's own sources share.
extern "C" {
extern unsigned char fShutdown;
extern std::uint64_t g_kesos_inittime;
void setTimespec(timespec* ts, unsigned int ms);
}

// What nanosleep was asked for, and what it is to answer.
namespace {

using kes::test::Call;
using kes::test::Instead;
using kes::test::real;

thread_local std::vector<timespec> sleeps;
thread_local std::vector<int> sleepAnswers;
int clockAnswer = 0;
std::optional<timeval> clockTime;  // the system's if there is none

const Instead<Call::nanosleep> nanosleepHere([](const timespec* wanted, timespec* remaining) {
  sleeps.push_back(*wanted);
  if (sleepAnswers.empty()) return real<Call::nanosleep>(wanted, remaining);
  const int error = sleepAnswers.back();
  sleepAnswers.pop_back();
  if (error == 0) return 0;
  if (remaining != nullptr) *remaining = {wanted->tv_sec / 2, wanted->tv_nsec / 2};
  errno = error;
  return -1;
});

const Instead<Call::gettimeofday> timeOfDayHere([](timeval* now, void* zone) {
  if (clockAnswer != 0 || !clockTime)
    return clockAnswer != 0 ? clockAnswer : real<Call::gettimeofday>(now, zone);
  *now = *clockTime;
  return 0;
});

}  // namespace

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

TEST(TimeTest, TheSystemIsUpUntilItIsShutDown) {
  EXPECT_EQ(fShutdown, 0);
  EXPECT_EQ(KesOsGetSystemUp(), 1);
  KesOsSetShutdown();
  EXPECT_EQ(fShutdown, 1);
  EXPECT_EQ(KesOsGetSystemUp(), 0);
  KesOsSetSystemUp();
  EXPECT_EQ(KesOsGetSystemUp(), 1);
}

TEST(TimeTest, UpTimeIsZeroRightAfterTheStartAndCountsWholeSeconds) {
  const auto result = kes::test::inChild([] {
    const auto seconds = [] {
      return std::chrono::floor<std::chrono::seconds>(steady_clock::now().time_since_epoch()).count();
    };
    const auto passed = [&seconds, before = seconds()] {
      return static_cast<std::uint64_t>(seconds() - before);
    };
    KesOsInit();
    const std::uint64_t start = g_kesos_inittime;
    const std::uint64_t atOnce = KesOsGetUpTime();
    if (start == 0 || atOnce > passed()) return 1;
    KesOsInit();
    if (g_kesos_inittime != start) return 2;
    g_kesos_inittime -= 41;  // a process that started 41 seconds earlier
    const std::uint64_t later = KesOsGetUpTime();
    return later >= 41 && later <= 41 + passed() ? 0 : 3;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST(TimeTest, UpTimeIsADifferenceIn32Bits) {
  const auto result = kes::test::inChild([] {
    KesOsInit();
    const std::uint64_t start = g_kesos_inittime;
    const std::uint64_t age = (std::uint64_t{1} << 32U) + 41;
    g_kesos_inittime = start - age;  // may be before the clock's own start, and wrap as well
    const unsigned int later = KesOsGetUpTime();
    const kes::time::MonotonicClock now;
    return later >= 41 && later <= 41 + (now.sec() - start) ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST(TimeTest, UpTimeStartsItselfInAProgramWithoutARuntimeObject) {
  const auto result = kes::test::inChild([] {
    kes::time::OsClock::MONOTONIC = 0;
    return KesOsGetUpTime() == 0 && g_kesos_inittime != 0 ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST(TimeTest, UpTimeIsThatOfTheMonotonicClock) {
  kes::time::ClockBase::init();
  KesOsInit();
  const kes::time::MonotonicClock now;
  EXPECT_LE(g_kesos_inittime, now.sec());
  EXPECT_GE(g_kesos_inittime + 60, now.sec());
}

TEST(TimeTest, WithoutAClockTheUpTimeIsZeroAndNothingIsThrown) {
  const auto result = kes::test::inChild([] {
    g_kesos_inittime = 0;
    kes::time::ClockBase::init();
    kes::time::OsClock::MONOTONIC = 12345;
    if (KesOsGetUpTime() != 0 || g_kesos_inittime != 0) return 1;
    kes::time::ClockBase::init();
    KesOsInit();
    return g_kesos_inittime != 0 ? 0 : 2;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST(TimeTest, AClockThatFailsLaterMakesTheUpTimeZero) {
  const auto result = kes::test::inChild([] {
    kes::time::ClockBase::init();
    g_kesos_inittime = 1;
    if (KesOsGetUpTime() == 0) return 1;
    kes::time::OsClock::MONOTONIC = 12345;
    return KesOsGetUpTime() == 0 && g_kesos_inittime == 1 ? 0 : 2;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST(TimeTest, TheWallClockIsThatOfTheSystem) {
  timeval before{}, after{};
  ::gettimeofday(&before, nullptr);
  const unsigned int value = KesOsGetTimeInmSec();
  ::gettimeofday(&after, nullptr);
  const auto inMs = [](const timeval& t) {
    return static_cast<std::uint32_t>(t.tv_sec * 1000 + t.tv_usec / 1000);
  };
  EXPECT_LE(value - inMs(before), inMs(after) - inMs(before));
  EXPECT_LE(KesOsGetTimeInSec() - before.tv_sec, 60);
  EXPECT_GE(KesOsGetTimeInSec(), before.tv_sec);
}

TEST(TimeTest, ASleepIsSplitIntoSecondsAndNanoseconds) {
  sleeps.clear();
  sleepAnswers = {0};
  KesOsSleep(1500);
  ASSERT_EQ(sleeps.size(), 1U);
  EXPECT_EQ(sleeps[0].tv_sec, 1);
  EXPECT_EQ(sleeps[0].tv_nsec, 500'000'000);
}

TEST(TimeTest, AnInterruptedSleepGoesOnForWhatRemained) {
  sleeps.clear();
  sleepAnswers = {0, EINTR, EINTR};
  KesOsSleep(4800);
  ASSERT_EQ(sleeps.size(), 3U);
  EXPECT_EQ(sleeps[1].tv_sec, 2);
  EXPECT_EQ(sleeps[1].tv_nsec, 400'000'000);
  EXPECT_EQ(sleeps[2].tv_sec, 1);
  EXPECT_EQ(sleeps[2].tv_nsec, 200'000'000);
}

TEST(TimeTest, ASleepThatFailsOtherwiseEnds) {
  sleeps.clear();
  sleepAnswers = {EINVAL};
  KesOsSleep(1000);
  EXPECT_EQ(sleeps.size(), 1U);
}

TEST(TimeTest, ASleepLastsItsTimeAcrossSignals) {
  struct sigaction action {
  }, old{};
  action.sa_handler = [](int) {};
  ::sigaction(SIGUSR1, &action, &old);
  std::atomic<bool> done = false;
  const pthread_t sleeper = ::pthread_self();
  std::thread nuisance([&] {
    while (!done) {
      ::pthread_kill(sleeper, SIGUSR1);
      std::this_thread::sleep_for(milliseconds(20));
    }
  });
  const auto start = steady_clock::now();
  KesOsSleep(300);
  EXPECT_GE(steady_clock::now() - start, milliseconds(300));
  done = true;
  nuisance.join();
  ::sigaction(SIGUSR1, &old, nullptr);
}

TEST(TimeTest, ADeadlineLiesTheGivenTimeAhead) {
  for (const unsigned int ms : {0U, 1U, 999U, 1000U, 1999U, 86'400'000U}) {
    timeval before{}, after{};
    timespec deadline{};
    ::gettimeofday(&before, nullptr);
    setTimespec(&deadline, ms);
    ::gettimeofday(&after, nullptr);
    const auto inUs = [](long long sec, long long us) { return sec * 1'000'000 + us; };
    const long long ahead = inUs(deadline.tv_sec, deadline.tv_nsec / 1000) - ms * 1000LL;
    EXPECT_GE(ahead, inUs(before.tv_sec, before.tv_usec));
    EXPECT_LE(ahead, inUs(after.tv_sec, after.tv_usec));
    EXPECT_GE(deadline.tv_nsec, 0);
    EXPECT_LT(deadline.tv_nsec, 1'000'000'000);
  }
}

TEST(TimeTest, ADeadlineThatFallsOnAFullSecondHasNoNanoseconds) {
  for (const auto& [microseconds, ms] :
       {std::pair(999'000, 1U), std::pair(1000, 1999U), std::pair(0, 2000U)}) {
    timespec deadline{};
    clockTime = {.tv_sec = 100, .tv_usec = microseconds};
    setTimespec(&deadline, ms);
    clockTime.reset();
    EXPECT_EQ(deadline.tv_sec, 100 + (microseconds / 1000 + static_cast<int>(ms)) / 1000) << ms;
    EXPECT_EQ(deadline.tv_nsec, 0) << ms;
  }
}

TEST(TimeTest, ADeadlineWithoutAClockIsZero) {
  timespec deadline{1, 2};
  clockAnswer = -1;
  setTimespec(&deadline, 1000);
  clockAnswer = 0;
  EXPECT_EQ(deadline.tv_sec, 0);
  EXPECT_EQ(deadline.tv_nsec, 0);
}

}  // namespace
