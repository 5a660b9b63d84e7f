// The handler's thread: its start, its end, and what makes them fail.
#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "kespal/ForkPending.h"
#include "kespal/error/OsError.h"
#include "kespal/signal/HandlerFixture.h"
#include "kespal/thread/Thread.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/Gate.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"

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
    EXPECT_EQ(raisedBy([&] { handler.start(signal); }).type, "kes::UsageError") << signal;
  }
  handler.start(SIGUSR1);
  handler.stop();
}

TEST_F(HandlerTest, AManagementSignalThatNobodyMayHandleIsRefusedBeforeItEndsTheProcess) {
  const ChildResult child = inChild([] {
    Handler handler;
    int refused = 0;
    for (const int signal : {SIGKILL, SIGSTOP}) {
      if (raisedBy([&] { handler.start(signal); }).type == "kes::UsageError") ++refused;
      handler.stop();
    }
    return refused;
  });
  EXPECT_EQ(child.exitCode(), 2) << "signal " << child.signal();
}

TEST_F(HandlerTest, StoppingBeforeStartingAndTwiceDoesNothing) {
  Handler handler;
  EXPECT_NO_THROW(handler.stop());
  handler.start(SIGUSR1);
  EXPECT_NO_THROW(handler.stop());
  EXPECT_NO_THROW(handler.stop());
}

TEST_F(HandlerTest, ANotifierThatStopsItsHandlerIsToldThatItCannotWaitAndTheThreadEnds) {
  const ChildResult child = inChild([] {
    ::alarm(60);
    Handler handler;
    Raised raised;
    Notifier stopping([&](int) { raised = raisedBy([&] { handler.stop(); }); });
    handler.add(SIGTERM, stopping);
    handler.start(SIGUSR1);
    send(SIGTERM);
    const bool hasEnded =
        stopping.isTold(1) && eventually([] { return thread::BasicThread::activeThreads() == 0; });
    if (!hasEnded) return 1;
    if (raised != osError(EDEADLK, source, 0, "stop")) {
      std::cerr << raised;
      return 2;
    }
    handler.stop();
    handler.start(SIGUSR1);
    expectDelivery(handler, SIGHUP);
    handler.stop();
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal() << child.err;
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
  ForkPending::m_pending = true;
  EXPECT_EQ(raisedBy([&] { handler.start(SIGUSR1); }).type, "kes::RuntimeError");
  ForkPending::m_pending = false;
  {
    const Refuse fault(Call::pthread_create, EAGAIN, once);
    EXPECT_EQ(raisedBy([&] { handler.start(SIGUSR1); }).line, 173);
  }
  {
    const Refuse fault(Call::pthread_sigmask, EINVAL, once);
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
    const Refuse fault(Call::pthread_kill, EINVAL, once);
    return raisedBy(operation);
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
    const Refuse fault(Call::sigwait, EINVAL, once);
    handler.start(SIGUSR1);
    ASSERT_TRUE(eventually([&] { return thread::BasicThread::activeThreads() == 0 && fault.struck(); }));
  }
  {
    const Refuse fault(Call::pthread_kill, ESRCH, once);  // what some systems say about it
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

TEST_F(HandlerTest, AnInterruptedWaitIsNotTheEndOfTheThread) {
  Handler handler;
  {
    const Refuse wait(Call::sigwait, EINTR, once);
    handler.start(SIGUSR1);
    ASSERT_TRUE(eventually([&] { return wait.struck() != 0; }));
  }
  expectDelivery(handler, SIGTERM);
  handler.stop();
}

TEST_F(HandlerTest, AManagementSignalWithoutAThreadIsRefused) {
  Handler handler;
  EXPECT_EQ(raisedBy([&] { handler.sendMgmSig(); }).type, "kes::RuntimeError");
}

TEST_F(HandlerTest, TheManagementSignalMayBeSentWhileOthersStartAndStopTheThread) {
  Handler handler;
  std::atomic<bool> over{false};
  std::vector<std::thread> senders;
  for (int i = 0; i < 3; ++i) {
    senders.emplace_back([&] {
      while (!over) {
        const Raised raised = raisedBy([&] { handler.sendMgmSig(); });
        EXPECT_TRUE(raised.type.empty() || raised.type == "kes::RuntimeError") << raised.type;
      }
    });
  }
  for (int i = 0; i < 500; ++i) {
    handler.start(i % 2 == 0 ? SIGUSR1 : SIGUSR2);
    handler.stop();
  }
  over = true;
  for (std::thread& sender : senders) sender.join();
}

TEST_F(HandlerTest, WhoStopsAHandlerDoesNotWaitForTheThreadThatAnotherOneHasStartedSince) {
  for (int i = 0; i < 500; ++i) {
    Handler handler;
    handler.start(SIGUSR1);
    std::vector<std::thread> stoppers;
    for (int j = 0; j < 4; ++j) stoppers.emplace_back([&] { handler.stop(); });
    handler.stop();
    raisedBy([&] { handler.start(SIGUSR1); });
    const bool restarted = raisedBy([&] { handler.sendMgmSig(); }).type.empty();
    for (std::thread& stopper : stoppers) stopper.join();  // hung when it joined the new thread
    if (restarted) handler.stop();
  }
}

TEST_F(HandlerTest, AThreadThatIsToldToLeaveSignalsTakesNoMoreAndNobodyWaitsForIt) {
  Gate inside, go;
  Notifier busy([&](int) {
    inside.open();
    go.pass();
  });
  Handler handler;
  handler.add(SIGTERM, busy);
  handler.start(SIGUSR1);
  send(SIGTERM);
  inside.pass();
  handler.leaveSignals();  // the handler's lock is held by the thread, which waits
  send(SIGTERM);
  go.open();
  EXPECT_TRUE(eventually([] { return thread::BasicThread::activeThreads() == 0; }));
  sigset_t pending;
  sigpending(&pending);
  EXPECT_TRUE(Set(pending).contains(SIGTERM));
  EXPECT_EQ(busy.count, 1);
  handler.stop();
  handler.start(SIGUSR1);
  EXPECT_TRUE(busy.isTold(2));
  handler.stop();
}

TEST_F(HandlerTest, AnIdleThreadThatIsToldToLeaveSignalsEnds) {
  Handler handler;
  handler.leaveSignals();  // nobody is there to be told
  handler.start(SIGUSR1);
  handler.leaveSignals();
  EXPECT_TRUE(eventually([] { return thread::BasicThread::activeThreads() == 0; }));
  handler.stop();
}

TEST_F(HandlerTest, ASignalThatWasTakenWhenTheThreadIsToldToLeaveSignalsGoesBackToTheProcess) {
  KES_SKIP_UNDER_THREAD_SANITIZER("handles every signal itself");
  const ChildResult child = inChild([] {
    ::alarm(120);
    Notifier notifier;
    Handler handler;
    handler.add(SIGTERM, notifier);
    const After told(Call::sigwait, [&] { handler.leaveSignals(); });
    handler.start(SIGUSR1);
    send(SIGTERM);
    eventually([&] { return notifier.count > 0; });
    return 1;
  });
  EXPECT_EQ(child.signal(), SIGTERM);
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
