#include "kespal/time/Clock.h"

#include <time.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

#include "kespal/error/OsError.h"
#include "support/ForkedChild.h"
#include "support/ScriptedClock.h"

namespace kes::time {
namespace {

using test::inChild;
using test::ScriptedClock;

constexpr std::int32_t second = 1'000'000'000;

class ClockTest : public testing::Test {
 protected:
  void SetUp() override {
    ClockBase::init();
    InitClock::init();
  }
};

RealtimeClock clockAt(time_t sec, long nsec) {
  const ScriptedClock script(sec, nsec);
  return RealtimeClock();
}

void expectValue(const ClockBase& clock, std::uint32_t sec, std::int32_t nsec) {
  EXPECT_EQ(clock.sec(), sec);
  EXPECT_EQ(clock.nsec(), nsec);
}

// These two stand first: in a program that runs all tests at once, later ones have called init().
TEST(ClockStartTest, AClockMadeBeforeInitFailsWithEinval) {
  const auto child = inChild([] {
    if (OsClock::REALTIME != 0 || OsClock::MONOTONIC != 0) return 1;
    try {
      RealtimeClock clock;
    } catch (const OsError& error) {
      return error.errnum() == EINVAL ? 0 : 2;
    }
    return 3;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(ClockStartTest, InitClockAndMonotonicClockMadeBeforeInitFailAsWell) {
  const auto child = inChild([] {
    int failures = 0;
    try {
      InitClock::init();
    } catch (const OsError&) {
      ++failures;
    }
    try {
      MonotonicClock clock;
    } catch (const OsError&) {
      ++failures;
    }
    return failures;
  });
  EXPECT_EQ(child.exitCode(), 2);
}

TEST_F(ClockTest, HandlesAreNonZeroAndAllSteadyOnesAreOne) {
  EXPECT_NE(OsClock::REALTIME, 0U);
  EXPECT_NE(OsClock::MONOTONIC, 0U);
  EXPECT_NE(OsClock::REALTIME, OsClock::MONOTONIC);
  EXPECT_EQ(OsClock::INITTIME, OsClock::MONOTONIC);
  EXPECT_EQ(OsClock::PROCTIME, OsClock::MONOTONIC);
  EXPECT_EQ(OsClock::THREADTIME, OsClock::MONOTONIC);
}

TEST_F(ClockTest, ARealtimeClockHoldsTheCalendarTimeOfItsMaking) {
  const time_t before = ::time(nullptr);
  const RealtimeClock clock;
  const time_t after = ::time(nullptr);
  // time() may lag behind by a tick: it reads the coarse clock.
  EXPECT_GE(clock.sec(), static_cast<std::uint32_t>(before));
  EXPECT_LE(clock.sec(), static_cast<std::uint32_t>(after) + 1);
  EXPECT_GE(clock.nsec(), 0);
  EXPECT_LT(clock.nsec(), second);
}

TEST_F(ClockTest, EachClockReadsItsOwnService) {
  RealtimeClock realtime;
  EXPECT_EQ(ScriptedClock::lastRead(), CLOCK_REALTIME);
  MonotonicClock monotonic;
  EXPECT_EQ(ScriptedClock::lastRead(), CLOCK_MONOTONIC);
  realtime.update();
  EXPECT_EQ(ScriptedClock::lastRead(), CLOCK_REALTIME);
  InitClock init;
  EXPECT_EQ(ScriptedClock::lastRead(), CLOCK_MONOTONIC);
}

TEST_F(ClockTest, AMonotonicClockIsNeverSetBack) {
  MonotonicClock earlier, later;
  for (int i = 0; i < 10'000; ++i) {
    later.update();
    ASSERT_FALSE(later.sec() < earlier.sec() ||
                 (later.sec() == earlier.sec() && later.nsec() < earlier.nsec()));
    earlier = later;
  }
}

TEST_F(ClockTest, UpdateReadsTheClockAgain) {
  ScriptedClock script(100, 5);
  RealtimeClock clock;
  expectValue(clock, 100, 5);
  script.set(101, 6);
  expectValue(clock, 100, 5);
  ClockBase& base = clock;
  base.update();
  expectValue(clock, 101, 6);
}

TEST_F(ClockTest, SecondsOfTheCalendarPassTheSignedLimitUnsigned) {
  expectValue(clockAt(2'147'483'648, 1), 2'147'483'648U, 1);
  EXPECT_EQ(clockAt(4'294'967'295, 1).toTimespec().tv_sec, 4'294'967'295);
}

TEST_F(ClockTest, AFailedReadingRaisesItsErrnoFromTheNumberedSite) {
  ScriptedClock script(7, 8);
  MonotonicClock clock;
  script.fail(EPERM);
  try {
    clock.update();
    FAIL() << "no error";
  } catch (const OsError& error) {
    EXPECT_EQ(error.errnum(), EPERM);
    EXPECT_STREQ(error.file(), "src/os/posix/time/Clock");
    EXPECT_EQ(error.line(), 60);
    EXPECT_STREQ(error.function(), "update");
  }
  expectValue(clock, 7, 8);
}

TEST_F(ClockTest, AnInitClockStartsNearZero) {
  InitClock::init();
  const InitClock clock;
  // Two neighbouring readings: the limit only has to hold on the slowest machine.
  EXPECT_LT(clock.sec(), 10U);
  EXPECT_GE(clock.nsec(), 0);
}

TEST_F(ClockTest, AnInitClockCountsFromItsOrigin) {
  ScriptedClock script(50, 200'000'000);
  InitClock::init();
  EXPECT_EQ(InitClock::m_init_time.sec, 50U);
  EXPECT_EQ(InitClock::m_init_time.nsec, 200'000'000);
  script.set(51, 700'000'000);
  InitClock clock;
  expectValue(clock, 1, 500'000'000);
  script.set(50, 200'000'000);
  ClockBase& base = clock;
  base.update();
  expectValue(clock, 0, 0);
}

TEST_F(ClockTest, AnInitClockBorrowsASecondWhenItsOriginHasMoreNanoseconds) {
  ScriptedClock script(50, 900'000'000);
  InitClock::init();
  script.set(52, 400'000'000);
  expectValue(InitClock(), 1, 500'000'000);
  script.set(51, 899'999'999);
  expectValue(InitClock(), 0, 999'999'999);
}

TEST_F(ClockTest, InitClockInitStartsAfreshFromTheRawReading) {
  ScriptedClock script(50, 1);
  InitClock::init();
  script.set(60, 2);
  InitClock::init();
  EXPECT_EQ(InitClock::m_init_time.sec, 60U);
  EXPECT_EQ(InitClock::m_init_time.nsec, 2);
}

TEST_F(ClockTest, AnInitClockBeforeItsOriginWrapsAround) {
  ScriptedClock script(50, 0);
  InitClock::init();
  script.set(49, 0);
  expectValue(InitClock(), 0xFFFFFFFFU, 0);
}

TEST_F(ClockTest, AdvancingPastAWholeSecondCarries) {
  RealtimeClock clock = clockAt(10, 999'999'999);
  clock += Milliseconds(1);
  expectValue(clock, 11, 999'999);
}

TEST_F(ClockTest, AdvancingToExactlyAWholeSecondDoesNotCarry) {
  RealtimeClock clock = clockAt(10, 999'000'000);
  clock += Milliseconds(1);
  expectValue(clock, 10, second);
  const ::timespec native = clock.toTimespec();
  EXPECT_EQ(native.tv_sec, 10);
  EXPECT_EQ(native.tv_nsec, second);
}

TEST_F(ClockTest, OneNanosecondAboveAWholeSecondCarries) {
  RealtimeClock clock = clockAt(10, 999'000'001);
  clock += Milliseconds(1);
  expectValue(clock, 11, 1);
}

TEST_F(ClockTest, ANegativeCountMovesBackByTruncatingDivisionWithoutBorrow) {
  RealtimeClock clock = clockAt(10, 200'000'000);
  clock += Milliseconds(-1500);
  expectValue(clock, 9, -300'000'000);
  const ::timespec native = clock.toTimespec();
  EXPECT_EQ(native.tv_sec, 9);
  EXPECT_EQ(native.tv_nsec, -300'000'000);
}

TEST_F(ClockTest, WholeSecondsLeaveTheNanosecondsAlone) {
  RealtimeClock clock = clockAt(10, 123);
  clock += Milliseconds(2000);
  expectValue(clock, 12, 123);
  clock += Milliseconds(0);
  expectValue(clock, 12, 123);
  clock += Milliseconds(-3000);
  expectValue(clock, 9, 123);
}

TEST_F(ClockTest, SecondsWrapAroundAtThirtyTwoBits) {
  RealtimeClock clock = clockAt(4'294'967'295, 0);
  clock += Milliseconds(1000);
  expectValue(clock, 0, 0);
  clock += Milliseconds(-1000);
  expectValue(clock, 4'294'967'295U, 0);
}

TEST_F(ClockTest, AdvancesReturnTheClockAndChain) {
  RealtimeClock clock = clockAt(10, 0);
  (clock += Milliseconds(400)) += Milliseconds(400);
  expectValue(clock, 10, 800'000'000);
}

TEST_F(ClockTest, TheExtremesOfADurationAreTakenInThirtyTwoBitArithmetic) {
  using Limits = std::numeric_limits<std::int64_t>;
  RealtimeClock clock = clockAt(0, 0);
  clock += Milliseconds(Limits::max());
  expectValue(clock, static_cast<std::uint32_t>(Limits::max() / 1000), 807'000'000);
  clock = clockAt(0, 0);
  clock += Milliseconds(Limits::min());
  expectValue(clock, static_cast<std::uint32_t>(Limits::min() / 1000), -808'000'000);
}

TEST_F(ClockTest, RepeatedNegativeAdvancesStayDefined) {
  RealtimeClock clock = clockAt(10, 0);
  std::int64_t model = 0;
  for (int i = 0; i < 100; ++i) {
    clock += Milliseconds(-999);
    model = static_cast<std::int32_t>(model - 999'000'000);
    if (model > second) model -= second;  // the wrapped sum is large and carries
    ASSERT_EQ(clock.nsec(), model);
  }
}

TEST_F(ClockTest, MillisecondsAreASignedSixtyFourBitCount) {
  static_assert(std::is_same_v<Milliseconds::rep, std::int64_t>);
  static_assert(std::is_same_v<Milliseconds::period, std::milli>);
  RealtimeClock clock = clockAt(10, 0);
  clock += std::chrono::seconds(3);
  expectValue(clock, 13, 0);
}

TEST_F(ClockTest, AClockIsACopyableValueOfHandleSecondsAndNanoseconds) {
  static_assert(sizeof(RealtimeClock) <= 24 && sizeof(InitClock) == sizeof(RealtimeClock));
  static_assert(std::is_copy_constructible_v<RealtimeClock> && std::is_copy_assignable_v<InitClock>);
  struct Fields {
    std::uint32_t clock, sec;
    std::int32_t nsec;
  } fields;
  const RealtimeClock clock = clockAt(11, 22);
  std::memcpy(&fields, reinterpret_cast<const char*>(&clock) + sizeof(void*), sizeof fields);
  EXPECT_EQ(fields.clock, OsClock::REALTIME);
  EXPECT_EQ(fields.sec, 11U);
  EXPECT_EQ(fields.nsec, 22);
}

TEST_F(ClockTest, OnlyUpdateIsVirtual) {
  static_assert(!std::is_polymorphic_v<OsClock>);
  static_assert(std::is_base_of_v<OsClock, ClockBase>);
  static_assert(std::is_polymorphic_v<ClockBase>);
  static_assert(!std::has_virtual_destructor_v<ClockBase>);
  ScriptedClock script(50, 0);
  InitClock::init();
  InitClock clock;
  script.set(53, 0);
  static_cast<ClockBase&>(clock).update();
  EXPECT_EQ(clock.sec(), 3U) << "the override was not taken";
}

}  // namespace
}  // namespace kes::time
