#include "kespal/signal/Set.h"

#include <csignal>

#include "kespal/ForkPending.h"
#include "kespal/signal/Mask.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"

namespace kes::signal {
namespace {

using namespace test;

TEST(SetTest, HoldsWhatWasAddedUntilItIsRemoved) {
  Set set{SIGINT, SIGTERM};
  EXPECT_TRUE(set.contains(SIGINT));
  EXPECT_TRUE(set.contains(SIGTERM));
  EXPECT_FALSE(set.contains(SIGHUP));
  set.remove(SIGINT);
  set.remove(SIGINT);
  EXPECT_FALSE(set.contains(SIGINT));
  EXPECT_EQ(sigismember(&set.native(), SIGTERM), 1);
}

TEST(SetTest, NumbersBelow1AndAbove32AreSilentlyNotAdded) {
  const Set set{0, -1, -1000, 33, 40, 64, 65, 1000};
  for (int signal = -2; signal <= 70; ++signal) EXPECT_FALSE(set.contains(signal)) << signal;
}

TEST(SetTest, EverySignalOfTheFirst31CanBeAdded) {
  for (int signal = 1; signal <= 31; ++signal) EXPECT_TRUE(Set{signal}.contains(signal)) << signal;
}

TEST(SetTest, ANumberThatIsNoSignalIsNeitherInASetNorRemoved) {
  Set set{SIGINT};
  for (const int signal : {-1, 0, 65, 1000}) {
    set.remove(signal);
    EXPECT_FALSE(set.contains(signal));
  }
  EXPECT_TRUE(set.contains(SIGINT));
}

TEST(SetTest, TheOriginalMaskIsTheOneThatTheProgramStartedWith) {
  EXPECT_FALSE(Set::m_original.contains(SIGUSR1));
  EXPECT_EQ(inChild([] {
              Mask::call({SIGUSR1}, SIG_BLOCK);
              return Set::m_original.contains(SIGUSR1) ? 1 : 0;
            }).exitCode(),
            0);
}

TEST(MaskTest, BlocksUnblocksAndReplaces) {
  const Set before = Mask::get();
  Mask::call({SIGUSR1, SIGUSR2}, SIG_BLOCK);
  EXPECT_TRUE(Mask::get().contains(SIGUSR1));
  EXPECT_TRUE(Mask::get().contains(SIGUSR2));
  Mask::call({SIGUSR1}, SIG_UNBLOCK);
  EXPECT_FALSE(Mask::get().contains(SIGUSR1));
  Mask::call({SIGHUP}, SIG_SETMASK);
  EXPECT_TRUE(Mask::get().contains(SIGHUP));
  EXPECT_FALSE(Mask::get().contains(SIGUSR2));
  Mask::call(before, SIG_SETMASK);
}

TEST(MaskTest, FailuresAreRaisedWithTheirCodeAndShowInErrno) {
  const auto failing = [](auto operation) {
    errno = 0;
    Raised raised = raisedBy([&] {
      const Refuse fault(Call::pthread_sigmask, EPERM, once);
      operation();
    });
    EXPECT_EQ(errno, EPERM);
    EXPECT_GT(std::exchange(raised.line, 0), 0);
    return raised;
  };
  EXPECT_EQ(failing([] { Mask::get(); }), osError(EPERM, "include/os/posix/signal/Mask", 0, "get"));
  EXPECT_EQ(failing([] { Mask::call({}, SIG_BLOCK); }),
            osError(EPERM, "include/os/posix/signal/Mask", 0, "call"));
  Raised raised = raisedBy([] { Mask::call({}, 4711); });
  raised.line = 0;
  EXPECT_EQ(raised, osError(EINVAL, "include/os/posix/signal/Mask", 0, "call"));
}

TEST(ForkPendingTest, NoForkIsPendingAtFirst) { EXPECT_FALSE(ForkPending::m_pending); }

}  // namespace
}  // namespace kes::signal
