#include "kespal/signal/ScopedMask.h"

#include <cerrno>
#include <csignal>
#include <thread>
#include <type_traits>

#include "kespal/error/OsError.h"
#include "kespal/signal/Mask.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/Gate.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"

namespace kes::signal {
namespace {

using namespace test;

bool isSame(const Set& one, const Set& other) {
  for (int signal = 1; signal < NSIG; ++signal) {
    if (one.contains(signal) != other.contains(signal)) return false;
  }
  return true;
}

TEST(ScopedMaskTest, SignalsAreBlockedForTheScopeBesidesThoseThatWere) {
  const auto child = inChild([] {
    Mask::call({SIGHUP}, SIG_SETMASK);
    {
      const ScopedMask masked({SIGTERM});
      if (!isSame(Mask::get(), {SIGHUP, SIGTERM})) return 1;
    }
    return isSame(Mask::get(), {SIGHUP}) ? 0 : 2;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(ScopedMaskTest, SignalsAreLetThroughOrTheMaskIsReplaced) {
  const auto child = inChild([] {
    Mask::call({SIGHUP, SIGINT}, SIG_SETMASK);
    {
      const ScopedMask open({SIGHUP}, SIG_UNBLOCK);
      if (!isSame(Mask::get(), {SIGINT})) return 1;
      const ScopedMask replaced({SIGTERM}, SIG_SETMASK);
      if (!isSame(Mask::get(), {SIGTERM})) return 2;
    }
    return isSame(Mask::get(), {SIGHUP, SIGINT}) ? 0 : 3;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(ScopedMaskTest, TheMaskFromBeforeComesBackWithAllItsSignalsWhateverWasDoneToItMeanwhile) {
  const auto child = inChild([] {
    Mask::call({SIGHUP, SIGUSR2}, SIG_SETMASK);
    {
      const ScopedMask masked({SIGTERM});
      Mask::call({SIGALRM, SIGTERM}, SIG_SETMASK);
    }
    return isSame(Mask::get(), {SIGHUP, SIGUSR2}) ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(ScopedMaskTest, ASignalThatCameMeanwhileArrivesAtTheEndOfTheScope) {
  KES_SKIP_UNDER_THREAD_SANITIZER("delivers signals when it thinks fit");
  const auto child = inChild([] {
    static volatile std::sig_atomic_t arrived = 0;
    ::signal(SIGTERM, [](int) { arrived = 1; });
    {
      const ScopedMask masked({SIGTERM});
      ::raise(SIGTERM);
      if (arrived != 0) return 1;
    }
    return arrived == 1 ? 0 : 2;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(ScopedMaskTest, ThreadsThatWereThereKeepTheirMask) {
  const Set before = Mask::get();
  Gate masking;
  Set elsewhere;
  std::thread other([&] {
    masking.pass();
    elsewhere = Mask::get();
  });
  const ScopedMask masked({SIGTERM});
  masking.open();
  other.join();
  EXPECT_TRUE(isSame(elsewhere, before));
}

TEST(ScopedMaskTest, AMaskThatCannotBeReadOrChangedIsRaisedWithItsCodeAndStaysAsItWas) {
  const Set before = Mask::get();
  for (const int call : {1, 2}) {
    const Refuse fault(Call::pthread_sigmask, EINVAL, nth(call));
    errno = ENOENT;
    EXPECT_EQ(raisedBy([] { const ScopedMask masked({SIGTERM}); }),
              osError(EINVAL, "include/os/posix/signal/Mask", 0, call == 1 ? "get" : "call"));
    EXPECT_EQ(errno, EINVAL);
  }
  EXPECT_EQ(raisedBy([] { const ScopedMask masked({SIGTERM}, 4711); }).errnum, EINVAL);
  EXPECT_TRUE(isSame(Mask::get(), before));
}

TEST(ScopedMaskTest, AMaskThatCannotBeRestoredIsReportedAndGoesNoFurther) {
  const Set before = Mask::get();
  testing::internal::CaptureStderr();
  {
    const Refuse fault(Call::pthread_sigmask, EINVAL, nth(3));
    const ScopedMask masked({SIGTERM});
  }
  Mask::call(before, SIG_SETMASK);
  const std::string report = testing::internal::GetCapturedStderr();
  EXPECT_THAT(report,
              testing::StartsWith("Error restoring the signal mask:\n\n#1)\n\tException occured at "));
  EXPECT_THAT(report, testing::HasSubstr(OsError(EINVAL).what()));
}

TEST(ScopedMaskTest, ItIsNeitherCopiedNorMoved) {
  static_assert(!std::is_copy_constructible_v<ScopedMask> && !std::is_copy_assignable_v<ScopedMask>);
  static_assert(!std::is_move_constructible_v<ScopedMask> && std::is_nothrow_destructible_v<ScopedMask>);
}

}  // namespace
}  // namespace kes::signal
