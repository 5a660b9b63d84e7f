// What clock values can do with each other and with std::chrono.
#include <chrono>
#include <compare>
#include <concepts>
#include <cstdint>
#include <limits>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "kespal/time/Clock.h"
#include "support/ScriptedClock.h"

namespace kes::time {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using std::chrono::sys_time;
using std::chrono::system_clock;
using test::ScriptedClock;

class ClockValuesTest : public testing::Test {
 protected:
  void SetUp() override {
    ClockBase::init();
    InitClock::init();
  }
};

template <typename Clock>
Clock clockAt(time_t sec, long nsec) {
  const ScriptedClock script(sec, nsec);
  return Clock();
}

void expectValue(const ClockBase& clock, std::uint32_t sec, std::int32_t nsec) {
  EXPECT_EQ(clock.sec(), sec);
  EXPECT_EQ(clock.nsec(), nsec);
}

template <typename One, typename Other>
concept Compared = requires(const One& one, const Other& other) {
  one < other;
}
|| requires(const One& one, const Other& other) { one == other; };
template <typename One, typename Other>
concept Subtracted = requires(const One& one, const Other& other) {
  one - other;
};

TEST_F(ClockValuesTest, ALaterValueIsGreater) {
  const auto early = clockAt<RealtimeClock>(10, 999'999'999), late = clockAt<RealtimeClock>(11, 0);
  EXPECT_TRUE(early < late && early <= late && late > early && late >= early && early != late);
  EXPECT_FALSE(late < early || early == late);
  EXPECT_TRUE(early <=> late == std::weak_ordering::less);
  EXPECT_TRUE(early == early && early <= early);
}

TEST_F(ClockValuesTest, ValuesAreComparedByTheirMomentHoweverItIsWritten) {
  auto advanced = clockAt<RealtimeClock>(10, 999'000'000);
  advanced += Milliseconds(1);
  expectValue(advanced, 10, 1'000'000'000);
  EXPECT_TRUE(advanced == clockAt<RealtimeClock>(11, 0));
  EXPECT_TRUE(advanced < clockAt<RealtimeClock>(11, 1));
  auto setBack = clockAt<RealtimeClock>(10, 0);
  setBack += Milliseconds(-1);
  expectValue(setBack, 10, -1'000'000);
  EXPECT_TRUE(setBack == clockAt<RealtimeClock>(9, 999'000'000));
}

TEST_F(ClockValuesTest, OnlyClocksOfOneKindAreComparedOrSubtracted) {
  static_assert(Compared<RealtimeClock, RealtimeClock> && Compared<MonotonicClock, MonotonicClock> &&
                Compared<InitClock, InitClock>);
  static_assert(!Compared<RealtimeClock, MonotonicClock> && !Compared<MonotonicClock, InitClock> &&
                !Compared<RealtimeClock, InitClock> && !Compared<ClockBase, ClockBase>);
  static_assert(Subtracted<InitClock, InitClock> && !Subtracted<RealtimeClock, MonotonicClock> &&
                !Subtracted<ClockBase, ClockBase>);
  static_assert(!std::convertible_to<nanoseconds, MonotonicClock> &&
                !std::convertible_to<system_clock::time_point, RealtimeClock>);
  static_assert(!std::constructible_from<MonotonicClock, std::chrono::steady_clock::time_point> &&
                !std::constructible_from<MonotonicClock, RealtimeClock::time_point>);
}

TEST_F(ClockValuesTest, ADifferenceIsExactInBothDirections) {
  const auto early = clockAt<MonotonicClock>(10, 999'999'999), late = clockAt<MonotonicClock>(12, 1);
  EXPECT_EQ(late - early, 1s + 2ns);
  EXPECT_EQ(early - late, -1s - 2ns);
  EXPECT_EQ(clockAt<RealtimeClock>(4'294'967'295, 999'999'999) - clockAt<RealtimeClock>(0, 0),
            4'294'967'295s + 999'999'999ns);
}

TEST_F(ClockValuesTest, AdvancingGivesBackTheKindItWasAskedOf) {
  auto clock = clockAt<RealtimeClock>(10, 0);
  static_assert(std::is_same_v<decltype(clock += 50ms), RealtimeClock&>);
  static_assert(std::is_same_v<decltype(clock -= 50ms), RealtimeClock&>);
  static_assert(std::is_same_v<decltype(std::as_const(clock) + 50ms), RealtimeClock>);
  static_assert(std::is_same_v<decltype(MonotonicClock() - 50ms), MonotonicClock>);
  static_assert(std::is_same_v<decltype(std::declval<ClockBase&>() += 50ms), ClockBase&>);
  EXPECT_EQ(&(clock += 50ms), &clock);
  ClockBase& base = clock += 50ms;
  expectValue(base, 10, 100'000'000);
}

TEST_F(ClockValuesTest, ASumIsWhatAdvancingGivesAndLeavesTheOperandAlone) {
  using Limits = std::numeric_limits<std::int64_t>;
  for (const std::int64_t count : {std::int64_t{0}, std::int64_t{1}, std::int64_t{-1500}, std::int64_t{999},
                                   std::int64_t{2000}, Limits::max(), Limits::min()}) {
    const auto start = clockAt<RealtimeClock>(10, 1'000'000);
    RealtimeClock advanced = start;
    advanced += Milliseconds(count);
    const RealtimeClock sum = start + Milliseconds(count);
    expectValue(sum, advanced.sec(), advanced.nsec());
    expectValue(start, 10, 1'000'000);
  }
}

TEST_F(ClockValuesTest, SettingBackIsAdvancingByTheOtherSign) {
  expectValue(clockAt<RealtimeClock>(10, 200'000'000) - 1500ms, 9, -300'000'000);
  expectValue(clockAt<RealtimeClock>(10, 999'999'999) - Milliseconds(-1), 11, 999'999);
  expectValue(clockAt<RealtimeClock>(0, 0) - Milliseconds::min(),
              static_cast<std::uint32_t>(std::numeric_limits<std::int64_t>::max() / 1000), 808'000'000);
}

TEST_F(ClockValuesTest, ARealtimeClockIsTheSystemClockOfTheStandardLibrary) {
  const auto clock = clockAt<RealtimeClock>(1'700'000'000, 123'456'789);
  EXPECT_EQ(clock.toSysTime(), sys_time<nanoseconds>(1'700'000'000s + 123'456'789ns));
  const RealtimeClock back(clock.toSysTime());
  expectValue(back, 1'700'000'000, 123'456'789);
  const auto before = system_clock::now();
  const RealtimeClock now;
  const auto after = system_clock::now();
  EXPECT_LE(before, now.toSysTime());
  EXPECT_LE(now.toSysTime(), after);
}

TEST_F(ClockValuesTest, AMomentOfAnyPrecisionBecomesAValueWithNanosecondsOfASecond) {
  expectValue(RealtimeClock(sys_time<std::chrono::days>(std::chrono::days(1))), 86'400, 0);
  expectValue(RealtimeClock(sys_time<std::chrono::milliseconds>(1500ms)), 1, 500'000'000);
  using Fraction = std::chrono::duration<double>;
  expectValue(RealtimeClock(sys_time<Fraction>(Fraction(1.25))), 1, 250'000'000);
  expectValue(RealtimeClock((clockAt<RealtimeClock>(10, 0) - 1ms).toSysTime()), 9, 999'000'000);
}

TEST_F(ClockValuesTest, MomentsThatSecondsOfThirtyTwoBitsCannotTellWrapAround) {
  expectValue(RealtimeClock(sys_time<nanoseconds>(-1ns)), 0xFFFF'FFFFU, 999'999'999);
  expectValue(RealtimeClock(sys_time<std::chrono::seconds>(4'294'967'297s)), 1, 0);
}

TEST_F(ClockValuesTest, EveryKindIsAClockWhoseMomentsConvertBothWays) {
  const auto check = []<typename Clock>(const Clock& clock) {
    const typename Clock::time_point moment = clock.toTimePoint();
    EXPECT_EQ(moment.time_since_epoch(), clock.sinceEpoch());
    expectValue(Clock(moment), clock.sec(), clock.nsec());
    expectValue(Clock(moment + 3us), clock.sec(), clock.nsec() + 3000);
  };
  check(clockAt<RealtimeClock>(7, 8));
  check(clockAt<MonotonicClock>(7, 8));
  check(InitClock(InitClock::time_point(7s + 8ns)));
  static_assert(!RealtimeClock::is_steady && MonotonicClock::is_steady && InitClock::is_steady);
}

TEST_F(ClockValuesTest, AValueFromAMomentReadsItsOwnClockWhenItIsUpdated) {
  MonotonicClock clock(MonotonicClock::time_point(1s));
  const ScriptedClock script(50, 60);
  clock.update();
  expectValue(clock, 50, 60);
  EXPECT_EQ(ScriptedClock::lastRead(), CLOCK_MONOTONIC);
}

TEST_F(ClockValuesTest, TheStandardLibrarySleepsByTheseClocks) {
  const MonotonicClock start;
  std::this_thread::sleep_until(MonotonicClock::now() + 5ms);
  EXPECT_GE(MonotonicClock() - start, 5ms);
}

TEST_F(ClockValuesTest, ALimitIsRoundedUpAndKeptWithinAHundredYears) {
  constexpr Milliseconds most = std::chrono::hours(24 * 365 * 100);
  EXPECT_EQ(boundedWait(Milliseconds(7)), Milliseconds(7));
  EXPECT_EQ(boundedWait(1ns), Milliseconds(1));
  EXPECT_EQ(boundedWait(1'000'001ns), Milliseconds(2));
  EXPECT_EQ(boundedWait(Milliseconds(-1)), Milliseconds(0));
  for (const Milliseconds limit : {most, most + 1ms, Milliseconds::max()})
    EXPECT_EQ(boundedWait(limit), most);
  EXPECT_EQ(boundedWait(Milliseconds::min()), Milliseconds(0));
  EXPECT_EQ(boundedWait(std::chrono::hours::max()), most);
  EXPECT_EQ(boundedWait(std::chrono::duration<double>(std::numeric_limits<double>::quiet_NaN())),
            Milliseconds(0));
  EXPECT_EQ(boundedWait(std::chrono::duration<double>(std::numeric_limits<double>::infinity())), most);
}

// Values with user's operators of their own keep them: these are better matches than the library's.
bool operator<(const MonotonicClock&, const MonotonicClock&) { return true; }
nanoseconds operator-(const MonotonicClock&, const MonotonicClock&) { return nanoseconds(4711); }

TEST_F(ClockValuesTest, OperatorsThatAProgramHasDefinedItselfKeepTheirMeaning) {
  const auto clock = clockAt<MonotonicClock>(1, 0);
  EXPECT_TRUE(clock < clock);
  EXPECT_EQ(clock - clock, 4711ns);
}

}  // namespace
}  // namespace kes::time
