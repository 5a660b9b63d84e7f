// The handler's thread: its start, its end, and what makes them fail.
#include <cerrno>

#include "kespal/State.h"
#include "kespal/signal/HandlerFixture.h"
#include "kespal/thread/Faults.h"
#include "kespal/thread/Thread.h"
#include "support/ForkedChild.h"

namespace kes::signal {
namespace {

using namespace test;

TEST_F(HandlerTest, StartingBlocksTheManagementSignalInTheThreadAndLeavesTheCallersMaskAlone) {
  const ChildResult child = inChild([] {
    Mask::call({SIGUSR1}, SIG_UNBLOCK);
    Handler handler;
    handler.start(SIGUSR1);
    for (int i = 0; i < 1000; ++i) handler.sendMgmSig();  // the thread may not be waiting yet
    handler.stop();
    return Mask::get().contains(SIGUSR1) ? 1 : 0;
  });
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal();
}

TEST_F(HandlerTest, AManagementSignalThatCannotBeWaitedForIsRefused) {
  Handler handler;
  for (const int signal : {0, -1, 33, 40, 4711}) {
    EXPECT_EQ(raisedBy([&] { handler.start(signal); }).type, "UsageError") << signal;
  }
  handler.start(SIGUSR1);
  handler.stop();
}

TEST_F(HandlerTest, StoppingBeforeStartingAndTwiceDoesNothing) {
  Handler handler;
  EXPECT_NO_THROW(handler.stop());
  handler.start(SIGUSR1);
  EXPECT_NO_THROW(handler.stop());
  EXPECT_NO_THROW(handler.stop());
}

TEST_F(HandlerTest, AHandlerCanBeStartedAgainAlsoWithAnotherManagementSignal) {
  Handler handler;
  Notifier notifier, formerlyManaging;
  handler.add(SIGTERM, notifier);
  for (int i = 0; i < 20; ++i) {
    handler.start(i % 2 == 0 ? SIGUSR1 : SIGUSR2);
    send(SIGTERM);
    EXPECT_TRUE(notifier.isTold(i + 1));
    handler.stop();
  }
  handler.start(SIGUSR1);
  handler.add(SIGUSR2, formerlyManaging);
  send(SIGUSR2);
  EXPECT_TRUE(formerlyManaging.isTold(1));
  handler.stop();
}

TEST_F(HandlerTest, StartingARunningHandlerIsMisuseAndChangesNothing) {
  Handler handler;
  handler.start(SIGUSR1);
  EXPECT_EQ(
      raisedBy([&] { handler.start(SIGUSR2); }),
      usageError("Tried to start a thread that is not BURIED", "src/os/posix/thread/Thread", 154, "create"));
  expectDelivery(handler, SIGUSR2);
  handler.stop();
}

TEST_F(HandlerTest, AStartThatFailsLeavesTheHandlerStopped) {
  Handler handler;
  State::m_fork_pending = true;
  EXPECT_EQ(raisedBy([&] { handler.start(SIGUSR1); }).type, "RuntimeError");
  State::m_fork_pending = false;
  {
    const Fault fault(Call::ThreadCreate, EAGAIN);
    EXPECT_EQ(raisedBy([&] { handler.start(SIGUSR1); }).line, 173);
  }
  {
    const Fault fault(Call::Sigmask, EINVAL);
    EXPECT_EQ(raisedBy([&] { handler.start(SIGUSR1); }).file, "include/os/posix/signal/Mask");
  }
  EXPECT_NO_THROW(handler.stop());
  handler.start(SIGUSR1);
  handler.stop();
}

TEST_F(HandlerTest, AFailureToWakeTheThreadIsRaisedAfterTheChangeWasMade) {
  Handler handler;
  Notifier notifier;
  handler.start(SIGUSR1);
  const auto failing = [&](auto operation) {
    const Fault fault(Call::ThreadKill, EINVAL);
    return withoutLine(raisedBy(operation));
  };
  const Raised expected = osError(EINVAL, source, 0, "sendMgmSig");
  EXPECT_EQ(failing([&] { handler.sendMgmSig(); }), expected);
  EXPECT_EQ(failing([&] { handler.add(SIGTERM, notifier); }), expected);
  EXPECT_EQ(failing([&] { handler.remove(SIGTERM, notifier); }), expected);
  EXPECT_EQ(removing(handler, SIGTERM, notifier), notRegistered);
  EXPECT_EQ(failing([&] { handler.stop(); }), expected);
  handler.stop();  // the lock was released, and the thread still listens
}

TEST_F(HandlerTest, AThreadThatIsGoneCountsAsStopped) {
  Handler handler;
  testing::internal::CaptureStderr();
  {
    const Fault fault(Call::Sigwait, EINVAL);
    handler.start(SIGUSR1);
    ASSERT_TRUE(eventually([&] { return thread::BasicThread::activeThreads() == 0 && fault.struck(); }));
  }
  {
    const Fault fault(Call::ThreadKill, ESRCH);  // what some systems say about it
    EXPECT_NO_THROW(handler.stop());
  }
  const std::string report = testing::internal::GetCapturedStderr();
  EXPECT_THAT(report, testing::HasSubstr(" died with KES exception:\n"));
  EXPECT_THAT(report, testing::ContainsRegex(std::string(source) + ":[0-9]+ \\(thread\\)"));
  EXPECT_THAT(report, testing::HasSubstr(OsError(EINVAL).text()));
  handler.start(SIGUSR1);
  expectDelivery(handler, SIGTERM);
  handler.stop();
}

TEST_F(HandlerTest, AManagementSignalWithoutAThreadIsRefused) {
  Handler handler;
  EXPECT_EQ(raisedBy([&] { handler.sendMgmSig(); }).type, "RuntimeError");
}

TEST_F(HandlerTest, AHandlerThatIsDestroyedWhileItRunsStopsFirst) {
  for (int i = 0; i < 50; ++i) {
    Handler handler;
    handler.start(SIGUSR1);
  }
  EXPECT_EQ(thread::BasicThread::activeThreads(), 0);
}

}  // namespace
}  // namespace kes::signal
