// What only a Mac can show: the halves of os/darwin against its kernel and C library. Compiled for macOS
// wherever that is done; run on a Mac, and under the loader of the tests as far as that goes.
#include <dlfcn.h>
#include <mach-o/dyld.h>
#include <pthread.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <numeric>
#include <optional>
#include <sstream>
#include <string>

#include "kesos/threads.h"
#include "kespal/Backtrace.h"
#include "kespal/Locale.h"
#include "kespal/error/OsError.h"
#include "kespal/os/darwin/thread/Native.h"
#include "kespal/proc/Env.h"
#include "kespal/proc/Info.h"
#include "kespal/thread/Condition.h"
#include "kespal/thread/Lock.h"
#include "kespal/thread/LockGuard.h"
#include "kespal/thread/Thread.h"
#include "kespal/time/Clock.h"
#include "os/System.h"
#include "proc/Records.h"
#include "support/ForkedChild.h"
#include "support/TempDir.h"

namespace kes {
namespace {

TEST(NativeClockTest, TheCalendarClockTellsTheTimeOfDay) {
  time::ClockBase::init();
  const auto before = static_cast<unsigned>(std::time(nullptr));
  const time::RealtimeClock clock;
  EXPECT_LE(before, clock.sec());
  EXPECT_LE(clock.sec(), static_cast<unsigned>(std::time(nullptr)));
  EXPECT_TRUE(clock.nsec() >= 0 && clock.nsec() < 1'000'000'000) << clock.nsec();
}

TEST(NativeClockTest, TheCalendarClockStepsInWholeMicroseconds) {
  time::ClockBase::init();
  time::RealtimeClock clock;
  for (int i = 0; i < 100; ++i) {
    clock.update();
    ASSERT_EQ(clock.nsec() % 1000, 0);
  }
}

TEST(NativeClockTest, TheSystemClockNeverGoesBack) {
  time::ClockBase::init();
  time::MonotonicClock before, now;
  for (int i = 0; i < 10'000; ++i) {
    now.update();
    ASSERT_TRUE(now.sec() > before.sec() || (now.sec() == before.sec() && now.nsec() >= before.nsec()));
    before = now;
  }
}

TEST(NativeClockTest, AClockWithoutAServiceRaisesOsErrorWithTheStaleErrno) {
  const auto child = test::inChild([] {
    time::OsClock::REALTIME = 0;  // as before init()
    errno = EDOM;
    try {
      const time::RealtimeClock clock;
    } catch (const OsError& error) {
      return error.errnum() == EDOM ? 0 : error.errnum();
    }
    return 98;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

/// The name that the system keeps for a thread which gave itself that name.
std::string keptOf(const std::string& name) {
  EXPECT_EQ(os::nameThread(name.c_str()), 0);
  char kept[64] = "";
  EXPECT_EQ(::pthread_getname_np(::pthread_self(), kept, sizeof kept), 0);
  return kept;
}

TEST(NativeThreadTest, ANameOfSixtyThreeBytesIsKeptAndALongerOneCut) {
  EXPECT_EQ(keptOf(std::string(63, 'a')), std::string(63, 'a'));
  EXPECT_EQ(keptOf(std::string(80, 'b')), std::string(63, 'b'));
}

TEST(NativeThreadTest, TheNumberOfAThreadIsTheSystems) {
  std::uint64_t expected = 0;
  ASSERT_EQ(::pthread_threadid_np(::pthread_self(), &expected), 0);
  EXPECT_EQ(thread::getNativeThreadId(), expected);
}

TEST(NativeClockTest, TheStandardLibrarysSteadyClockGoesOnWhileTheMachineSleeps) {
  const auto nanoseconds = [](clockid_t clock) {
    return std::chrono::nanoseconds(::clock_gettime_nsec_np(clock));
  };
  const auto slept = nanoseconds(CLOCK_MONOTONIC_RAW) - nanoseconds(CLOCK_UPTIME_RAW);
  if (slept < std::chrono::seconds(5)) GTEST_SKIP() << "this machine has not slept since it was started";
  time::ClockBase::init();
  const time::MonotonicClock ours;
  const auto apart = std::chrono::steady_clock::now().time_since_epoch() - ours.sinceEpoch();
  EXPECT_LT(std::chrono::abs(apart - slept), std::chrono::seconds(1));
}

/// What a thread finds its stack to be, in bytes.
struct StackLooker : thread::CppThread::IThread {
  void thread(thread::CppThread&) override { size = ::pthread_get_stacksize_np(::pthread_self()); }
  std::size_t size = 0;
};

TEST(NativeThreadTest, TheStackOfAThreadIsOf512KiBUnlessTold) {
  StackLooker looker;
  thread::CppThread thread("looker", &looker);
  thread.run();
  thread.join();
  EXPECT_EQ(looker.size, 512U * 1024);
}

TEST(NativeThreadTest, AStackOfAFlatThreadThatIsNoMultipleOfThePageIsRefused) {
  const auto start = [](unsigned stackSize) {
    pthread_t thread{};
    return KesOsThreadBegin(
        &thread, [](void*) -> void* { return nullptr; }, stackSize, nullptr);
  };
  EXPECT_EQ(start(16U * 1024), 1);
  EXPECT_EQ(start(64U * 1024), 1);
  EXPECT_EQ(start(64U * 1024 + 1), 0);
}

struct Waiter : thread::CppThread::IThread {
  void thread(thread::CppThread&) override {
    condition.lock();
    waiting = true;
    condition.signal();
    if (isTimed) {
      condition.waitFor(std::chrono::hours(1), [] { return false; });
    } else {
      condition.wait([] { return false; });
    }
  }

  thread::Condition condition;
  bool waiting = false, isTimed = false;
};

TEST(NativeThreadTest, AThreadThatIsCancelledInAWaitLeavesItsLockFree) {
  time::ClockBase::init();
  for (const bool isTimed : {false, true}) {
    auto* const waiter = new Waiter;  // stays: it lies on the stack of a thread that nobody unwinds
    waiter->isTimed = isTimed;
    thread::CppThread thread("waiter", waiter);
    thread.run();
    waiter->condition.lock();
    waiter->condition.wait([waiter] { return waiter->waiting; });
    waiter->condition.unlock();
    thread.kill();
    waiter->condition.lock();
    waiter->condition.unlock();
  }
}

struct ChildWaiter : thread::CppThread::IThread {
  void thread(thread::CppThread&) override {
    const thread::LockGuardT<thread::Lock> guard(lock);
    waiter.emplace(records, lock, 4711, proc::Records::latest);
    isThere = true;
    while (!isTimed) waiter->wait();
    while (waiter->waitTimed(time::MonotonicClock() + std::chrono::hours(1))) {
    }
  }

  proc::Records records;
  thread::Lock lock{thread::Normal};
  std::optional<proc::Waiter> waiter;
  std::atomic<bool> isThere{false};
  bool isTimed = false;
};

TEST(NativeThreadTest, AThreadThatIsCancelledWhileItWaitsForAChildIsOffTheList) {
  time::ClockBase::init();
  for (const bool isTimed : {false, true}) {
    auto* const body = new ChildWaiter;  // stays, as above
    body->isTimed = isTimed;
    thread::CppThread thread("waiter", body);
    thread.run();
    while (!body->isThere) thread::BasicThread::yield();
    body->lock.lock();  // which it gives away by waiting
    EXPECT_FALSE(body->waiter->isWoken());
    body->lock.unlock();
    thread.kill();
    EXPECT_TRUE(body->waiter->isWoken());
    body->lock.lock();
    body->lock.unlock();
  }
}

TEST(NativeThreadTest, AWaitThatFailsIsNotLeft) {
  static int left = 0;
  left = 0;
  const auto wait = [](void*) { raiseAt(KES_HERE, OsError(EIO)); };
  EXPECT_THROW(os::waitOrLeave(
                   wait, [](void*) { ++left; }, nullptr),
               OsError);
  EXPECT_EQ(left, 0);
}

TEST(NativeThreadTest, AWaitByTheMonotonicClockIsOverAtItsDeadlineAndNotBefore) {
  time::ClockBase::init();
  const thread::Condition condition;
  condition.lock();
  for (int i = 0; i < 20; ++i) {
    const time::MonotonicClock deadline = time::MonotonicClock() + std::chrono::milliseconds(3);
    while (condition.waitTimed(deadline)) {
    }
    EXPECT_GE(time::MonotonicClock(), deadline);
  }
  EXPECT_FALSE(condition.waitTimed(time::MonotonicClock(time::MonotonicClock::time_point())));
  condition.unlock();
}

struct LockHolder : thread::CppThread::IThread {
  void thread(thread::CppThread&) override {
    lock.lock();
    isHeld = true;
    while (!isToGive) thread::BasicThread::yield();
    lock.unlock();
  }

  thread::Lock lock{thread::Normal};
  std::atomic<bool> isHeld{false}, isToGive{false};
};

TEST(NativeThreadTest, ALockIsWaitedForNoLongerThanSaid) {
  LockHolder holder;
  thread::CppThread thread("holder", &holder);
  thread.run();
  while (!holder.isHeld) thread::BasicThread::yield();
  EXPECT_FALSE(holder.lock.tryLock());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(holder.lock.lockTimed(std::chrono::milliseconds(30)));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
  holder.isToGive = true;
  EXPECT_TRUE(holder.lock.lockTimed(time::Milliseconds::max()));
  holder.lock.unlock();
  thread.join();
}

TEST(NativeProcessTest, TheEnvironmentIsTheOneOfTheProgram) {
  ASSERT_EQ(::setenv("KES_NATIVE_TEST", "seen", 1), 0);
  bool seen = false;
  for (char** entry = *os::environment(); *entry != nullptr; ++entry) {
    seen = seen || std::strcmp(*entry, "KES_NATIVE_TEST=seen") == 0;
  }
  EXPECT_TRUE(seen);
}

TEST(NativeProcessTest, TheProgramIsFoundUnderItsPathAndByItsName) {
  const std::string path = proc::Info::exe();
  EXPECT_EQ(::access(path.c_str(), X_OK), 0) << path;
  const std::string name = path.substr(path.rfind('/') + 1);
  EXPECT_THAT(proc::Info::running(name), ::testing::Contains(::getpid()));
  EXPECT_THAT(proc::Info::running(name.substr(0, 15) + "?"), ::testing::IsEmpty());
}

TEST(NativeProcessTest, TheSavedIdsAreTheEffectiveOnesOfAProgramThatChangedNothing) {
  EXPECT_EQ(os::savedUserId(), ::geteuid());
  EXPECT_EQ(os::savedGroupId(), ::getegid());
}

TEST(NativeErrorTest, ANumberWithoutATextIsToldApart) {
  char text[128];
  EXPECT_TRUE(os::errorText(ENOENT, text, sizeof text));
  EXPECT_STREQ(text, "No such file or directory");
  EXPECT_FALSE(os::errorText(12345, text, sizeof text));
}

TEST(NativeFileTest, APipeCannotBeSynced) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const int result = ::fsync(ends[1]), errnum = errno;
  ::close(ends[0]);
  ::close(ends[1]);
  EXPECT_EQ(result, -1);
  EXPECT_TRUE(os::nothingToSync(errnum)) << errnum;
}

TEST(NativeFileTest, TheCaseOfANameDoesNotMatter) {
  const test::TempDir dir;
  test::writeFile(dir / "Name", "content");
  EXPECT_EQ(::access((dir / "nAME").c_str(), F_OK), 0) << "this volume tells them apart";
}

TEST(NativeLocaleTest, TheSystemsSpellingOfALocaleIsUnderstood) {
  const test::ChildResult child = test::inChild([] {
    ::setenv("LC_ALL", "de_AT.UTF-8", 1);
    Locale::init(Locale::System);
    return Locale::language() == Locale::GermanAustria ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(NativeLoaderTest, UnloadingALibraryIsNoticed) {
  const auto before = os::unloads();
  ASSERT_TRUE(before.has_value());
  void* const library = ::dlopen(KES_NATIVE_PLUGIN, RTLD_NOW);
  ASSERT_NE(library, nullptr) << ::dlerror();
  ASSERT_EQ(::dlclose(library), 0);
  EXPECT_GT(*os::unloads(), *before);
}

struct Line {
  int number = -1;
  std::string module{}, address{}, symbol{}, plus{};
};
Line lineOf(const std::string& text) {
  Line line;
  std::istringstream(text) >> line.number >> line.module >> line.address >> line.symbol >> line.plus;
  return line;
}

TEST(NativeBacktraceTest, ALineHasNumberModuleAddressAndSymbol) {
  const Backtrace backtrace = Backtrace::get();
  ASSERT_GT(backtrace.size(), 1U);
  const Line line = lineOf(backtrace.back());
  EXPECT_THAT(line.module, ::testing::Not(::testing::IsEmpty()));
  EXPECT_THAT(line.address, ::testing::StartsWith("0x"));
  EXPECT_EQ(line.plus, "+") << backtrace.back();
}

/// A function that every program can see, by its name as the linker has it.
extern "C" [[gnu::noinline]] void kesNativeBacktrace(Backtrace& backtrace);
void kesNativeBacktrace(Backtrace& backtrace) { backtrace = Backtrace::get(); }

TEST(NativeBacktraceTest, AFunctionOfAFileThatIsNotStrippedHasItsName) {
  Backtrace backtrace;
  kesNativeBacktrace(backtrace);
  EXPECT_THAT(backtrace, ::testing::Contains(::testing::HasSubstr(" kesNativeBacktrace + ")));
}

/// The numbers of a capture's lines, innermost first, from so many calls further in.
[[gnu::noinline]] std::vector<int> numbersFrom(int depth) {
  if (depth > 0) {
    std::vector<int> numbers = numbersFrom(depth - 1);
    return numbers;
  }
  std::vector<int> numbers;
  const Backtrace backtrace = Backtrace::get();
  for (auto line = backtrace.rbegin(); line != backtrace.rend(); ++line)
    numbers.push_back(lineOf(*line).number);
  return numbers;
}

TEST(NativeBacktraceTest, TheLinesOfEachCaptureAreNumberedFromOneInnermostFirst) {
  for (const int depth : {0, 3, 1}) {
    const std::vector<int> numbers = numbersFrom(depth);
    std::vector<int> counted(numbers.size());
    std::iota(counted.begin(), counted.end(), 1);
    EXPECT_EQ(numbers, counted) << depth;
  }
}

}  // namespace
}  // namespace kes
