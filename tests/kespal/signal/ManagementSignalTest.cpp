// The signal that tells the thread of a handler to look up.
#include "kespal/signal/HandlerFixture.h"

namespace kes::signal {
namespace {

TEST_F(HandlerTest, AManagementSignalOfAnEarlierRunThatIsNotifiedOfStaysNotifiedOf) {
  Handler handler;
  Notifier notifier;
  handler.add(SIGUSR2, notifier);
  handler.start(SIGUSR2);
  handler.stop();
  handler.start(SIGUSR1);
  const int before = notifier.count;
  send(SIGUSR2);
  EXPECT_TRUE(notifier.isTold(before + 1));
  handler.stop();
}

TEST_F(HandlerTest, AManagementSignalOfAnEarlierRunIsLeftAloneByTheNext) {
  Handler handler;
  handler.start(SIGUSR2);
  handler.stop();
  Notifier notifier;
  handler.add(SIGTERM, notifier);
  handler.start(SIGUSR1);
  send(SIGUSR2);
  send(SIGTERM);
  ASSERT_TRUE(notifier.isTold(1));
  handler.stop();
  sigset_t pending;
  ::sigpending(&pending);
  EXPECT_TRUE(sigismember(&pending, SIGUSR2)) << "the thread has taken it";
}

TEST_F(HandlerTest, AManagementSignalThatWasIgnoredIsNoLongerOnceItIsNeeded) {
  ::signal(SIGUSR1, SIG_IGN);
  Handler handler;
  handler.start(SIGUSR1);
  EXPECT_EQ(::signal(SIGUSR1, SIG_DFL), SIG_DFL);
  handler.stop();
}

TEST_F(HandlerTest, AManagementSignalThatIsHandledStaysSo) {
  const auto nothing = [](int) {};
  ::signal(SIGUSR1, nothing);
  Handler handler;
  handler.start(SIGUSR1);
  EXPECT_EQ(::signal(SIGUSR1, SIG_DFL), static_cast<void (*)(int)>(nothing));
  handler.stop();
}

}  // namespace
}  // namespace kes::signal
