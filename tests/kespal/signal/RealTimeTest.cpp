// What signals above 32 show: they can be sent and blocked, but are in no set that a program makes. macOS has
// none.
#include <csignal>

#include "kespal/signal/HandlerFixture.h"
#include "kespal/signal/ScopedMask.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"

namespace kes::signal {
namespace {

using namespace test;

class RealTimeTest : public HandlerTest {
 protected:
  void TearDown() override {
    // What is still pending must not end the test program.
    ::signal(number, SIG_IGN);
    ::signal(number, SIG_DFL);
    HandlerTest::TearDown();
  }

  /// The mask of a thread that blocks this signal alone.
  static ::sigset_t only() {
    ::sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, number);
    return mask;
  }

  static inline const int number = SIGRTMIN + 6;
};

TEST_F(RealTimeTest, TheyAreSilentlyNotAddedToASet) {
  const Set set{SIGRTMIN, SIGRTMAX};
  EXPECT_FALSE(set.contains(SIGRTMIN));
  EXPECT_FALSE(set.contains(SIGRTMAX));
}

TEST_F(RealTimeTest, AMaskThatIsReadAndRestoredKeepsThem) {
  const Set before = Mask::get();
  const ::sigset_t wanted = only();
  pthread_sigmask(SIG_SETMASK, &wanted, nullptr);
  const Set read = Mask::get();
  Mask::call({}, SIG_SETMASK);
  EXPECT_FALSE(Mask::get().contains(number));
  Mask::call(read, SIG_SETMASK);
  EXPECT_TRUE(Mask::get().contains(number));
  Mask::call(before, SIG_SETMASK);
}

TEST_F(RealTimeTest, TheyComeBackAtTheEndOfAScope) {
  const auto child = inChild([] {
    const ::sigset_t before = only();
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    {
      const ScopedMask masked({SIGTERM});
      Mask::call({SIGALRM, SIGTERM}, SIG_SETMASK);
    }
    return Mask::get().contains(number) && !Mask::get().contains(SIGTERM) ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST_F(RealTimeTest, OneIsRegisteredButNeverWaitedFor) {
  Handler handler;
  Notifier notifier;
  const ::sigset_t blocked = only();
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  handler.start(SIGUSR1);
  EXPECT_NO_THROW(handler.add(number, notifier));
  send(number);
  expectDelivery(handler, SIGTERM);
  EXPECT_EQ(notifier.count, 0);
  EXPECT_NO_THROW(handler.remove(number, notifier));
  EXPECT_EQ(removing(handler, number, notifier), notRegistered);
  handler.stop();
}

TEST_F(RealTimeTest, SeveralNotifiersOfOneAreEachRegistered) {
  Handler handler;
  Notifier first, second;
  handler.add(number, first);
  handler.add(number, second);
  handler.add(number, first);
  EXPECT_NO_THROW(handler.remove(number, first));
  EXPECT_NO_THROW(handler.remove(number, first));
  EXPECT_NO_THROW(handler.remove(number, second));
  EXPECT_EQ(removing(handler, number, second), notRegistered);
}

TEST_F(RealTimeTest, TheThreadOfAHandlerBlocksThem) {
  Handler handler;
  Set mask;
  Notifier notifier([&](int) { mask = Mask::get(); });
  handler.add(SIGTERM, notifier);
  handler.start(SIGUSR1);
  send(SIGTERM);
  ASSERT_TRUE(notifier.isTold(1));
  handler.stop();
  EXPECT_TRUE(mask.contains(SIGRTMIN));
  EXPECT_TRUE(mask.contains(SIGRTMAX));
}

}  // namespace
}  // namespace kes::signal
