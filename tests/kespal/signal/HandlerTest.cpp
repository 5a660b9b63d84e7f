#include "kespal/signal/Handler.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "kespal/error/FsError.h"
#include "kespal/error/OsError.h"
#include "kespal/signal/HandlerFixture.h"
#include "support/Calls.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

namespace kes::signal {
namespace {

using namespace test;

std::uint64_t procMask(const std::string& file, const std::string& field) {
  std::istringstream status(readFile(file));
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(field + ':')) return std::stoull(line.substr(field.size() + 1), nullptr, 16);
  }
  return 0;
}

bool holds(std::uint64_t mask, int signal) { return (mask >> (signal - 1) & 1) != 0; }

TEST_F(HandlerTest, ANotifierIsToldAboutItsSignalInOrdinaryThreadContext) {
  Handler handler;
  std::thread::id context;
  Notifier notifier([&](int) { context = std::this_thread::get_id(); });
  handler.add(SIGTERM, notifier);
  handler.start(SIGUSR1);
  send(SIGTERM);
  ASSERT_TRUE(notifier.isTold(1));
  handler.stop();
  EXPECT_EQ(notifier.last, SIGTERM);
  EXPECT_TRUE(notifier.allZeros);
  EXPECT_NE(context, std::this_thread::get_id());
}

TEST_F(HandlerTest, ANotifierCanBeAddedWhileTheThreadWaits) {
  Handler handler;
  handler.start(SIGUSR1);
  Notifier notifier;
  handler.add(SIGTERM, notifier);
  send(SIGTERM);
  EXPECT_TRUE(notifier.isTold(1));
  handler.stop();
}

TEST_F(HandlerTest, AfterRemovalASignalStaysPendingUntilItIsAddedAgain) {
  Handler handler;
  handler.start(SIGUSR1);
  Notifier first, second;
  handler.add(SIGTERM, first);
  handler.remove(SIGTERM, first);
  send(SIGTERM);
  handler.add(SIGTERM, second);
  EXPECT_TRUE(second.isTold(1));
  handler.stop();
  EXPECT_EQ(first.count, 0);
}

TEST_F(HandlerTest, ASecondAddForASignalRegistersNothing) {
  Handler handler;
  Notifier first, second;
  handler.add(SIGTERM, first);
  handler.add(SIGTERM, second);
  handler.add(SIGTERM, first);
  handler.start(SIGUSR1);
  send(SIGTERM);
  EXPECT_TRUE(first.isTold(1));
  EXPECT_EQ(removing(handler, SIGTERM, second), notRegistered);
  handler.remove(SIGTERM, first);
  EXPECT_EQ(removing(handler, SIGTERM, first), notRegistered);
  handler.add(SIGTERM, second);
  send(SIGTERM);
  EXPECT_TRUE(second.isTold(1));
  handler.stop();
  EXPECT_EQ(first.count, 1);
}

TEST_F(HandlerTest, RemovingWhatWasNeverAddedIsMisuse) {
  Handler handler;
  Notifier notifier;
  EXPECT_EQ(removing(handler, SIGTERM, notifier), notRegistered);
  handler.add(SIGINT, notifier);
  EXPECT_EQ(removing(handler, SIGTERM, notifier), notRegistered);
  EXPECT_NO_THROW(handler.remove(SIGINT, notifier));
}

TEST_F(HandlerTest, TheManagementSignalCallsNoNotifierAndCannotBeRegistered) {
  Handler handler;
  Notifier notifier, other;
  handler.start(SIGUSR1);
  handler.add(SIGUSR1, notifier);
  EXPECT_EQ(removing(handler, SIGUSR1, notifier), notRegistered);
  handler.add(SIGTERM, other);
  for (int i = 0; i < 100; ++i) handler.sendMgmSig();
  send(SIGTERM);
  EXPECT_TRUE(other.isTold(1));
  handler.stop();
  EXPECT_EQ(notifier.count, 0);
}

TEST_F(HandlerTest, ASignalThatIsManagedLaterNotifiesNobodyAndItsRemovalDoesNotDeafenTheThread) {
  Handler handler;
  Notifier notifier;
  handler.add(SIGUSR1, notifier);
  handler.start(SIGUSR1);
  handler.sendMgmSig();
  handler.remove(SIGUSR1, notifier);
  handler.stop();  // would hang if the thread no longer waited for the signal
  EXPECT_EQ(notifier.count, 0);
}

TEST_F(HandlerTest, WhatIsNoSignalOrCannotBeHandledIsRefused) {
  Handler handler;
  Notifier notifier;
  for (const int signal : {0, -1, 65, 4711, SIGKILL, SIGSTOP}) {
    EXPECT_EQ(raisedBy([&] { handler.add(signal, notifier); }), osError(EINVAL, source, 0, "add")) << signal;
    EXPECT_EQ(removing(handler, signal, notifier), notRegistered) << signal;
  }
}

TEST_F(HandlerTest, ADispositionThatCannotBeSetRegistersNothingAndLeavesTheHandlerUsable) {
  Handler handler;
  Notifier notifier;
  {
    const Refuse fault(Call::sigaction, EPERM, once);
    EXPECT_EQ(raisedBy([&] { handler.add(SIGTERM, notifier); }), osError(EPERM, source, 0, "add"));
  }
  EXPECT_EQ(removing(handler, SIGTERM, notifier), notRegistered);
  handler.start(SIGUSR1);
  handler.add(SIGTERM, notifier);
  send(SIGTERM);
  EXPECT_TRUE(notifier.isTold(1));
  handler.stop();
}

TEST_F(HandlerTest, AnIgnoredSignalIsIgnoredNoLongerOnceItIsAdded) {
  KES_SKIP_UNDER_THREAD_SANITIZER("handles every signal itself");
  ::signal(SIGHUP, SIG_IGN);
  EXPECT_TRUE(holds(procMask("/proc/self/status", "SigIgn"), SIGHUP));
  Handler handler;
  Notifier notifier;
  handler.add(SIGHUP, notifier);
  EXPECT_FALSE(holds(procMask("/proc/self/status", "SigIgn"), SIGHUP));
  EXPECT_FALSE(holds(procMask("/proc/self/status", "SigCgt"), SIGHUP));
  struct sigaction action = {};
  ::sigaction(SIGHUP, nullptr, &action);
  EXPECT_TRUE(action.sa_flags & SA_SIGINFO);
  for (int signal = 1; signal < 32; ++signal) EXPECT_EQ(sigismember(&action.sa_mask, signal), 0) << signal;
  handler.start(SIGUSR1);
  send(SIGHUP);
  EXPECT_TRUE(notifier.isTold(1));
  handler.stop();
}

TEST_F(HandlerTest, TheThreadHasTheHandledSignalsBlocked) {
  KES_SKIP_UNDER_THREAD_SANITIZER("handles every signal itself");
  Handler handler;
  std::atomic<pid_t> number = 0;
  Notifier notifier([&](int) { number = ::gettid(); });
  handler.add(SIGTERM, notifier);
  handler.start(SIGUSR1);
  send(SIGTERM);
  ASSERT_TRUE(test::eventually([&] { return number != 0; }));
  const std::string status = "/proc/self/task/" + std::to_string(number) + "/status";
  // While it waits, the kernel shows what it waits for as not blocked.
  EXPECT_TRUE(holds(procMask(status, "SigBlk"), SIGUSR2));
  EXPECT_TRUE(holds(procMask(status, "SigBlk"), SIGINT));
  handler.stop();
}

TEST_F(HandlerTest, TheThreadBlocksWhatIsSentToTheProcessAndNotWhatAThreadBringsOnItself) {
  KES_SKIP_UNDER_THREAD_SANITIZER("handles every signal itself");
  Handler handler;
  Set mask;
  Notifier notifier([&](int) { mask = Mask::get(); });
  handler.add(SIGTERM, notifier);
  handler.start(SIGUSR1);
  send(SIGTERM);
  ASSERT_TRUE(notifier.isTold(1));
  handler.stop();
  for (const int signal : {SIGHUP, SIGQUIT, SIGALRM, SIGCHLD, SIGTSTP}) {
    EXPECT_TRUE(mask.contains(signal)) << signal;
  }
  for (const int signal :
       {SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSYS, SIGXFSZ, SIGTTIN, SIGTTOU}) {
    EXPECT_FALSE(mask.contains(signal)) << signal;
  }
}

TEST_F(HandlerTest, AThreadThatCannotBeWokenIsCancelledBeforeItsHandlerDies) {
  KES_SKIP_UNDER_SANITIZERS("does not follow the unwinding of a cancelled thread");
  testing::internal::CaptureStderr();
  auto handler = std::make_unique<Handler>();
  handler->start(SIGUSR1);
  {
    const Refuse fault(Call::pthread_kill, EINVAL, once);
    handler.reset();
  }
  EXPECT_EQ(thread::BasicThread::activeThreads(), 0);
  const std::string report = testing::internal::GetCapturedStderr();
  EXPECT_THAT(report,
              testing::StartsWith("Error stopping the signal thread:\n\n#1)\n\tException occured at "));
  EXPECT_THAT(report, testing::EndsWith("\t" + std::string(OsError(EINVAL).what()) + "\n\n"));
}

TEST_F(HandlerTest, ANotifierThatThrowsIsReportedAndTheThreadGoesOn) {
  testing::internal::CaptureStderr();
  const FsError error("/x", ENOENT);
  Handler handler;
  Notifier library([&](int) { error.raise(); });
  Notifier standard([](int) { throw std::runtime_error("x"); });
  Notifier other([](int) { throw 7; });
  handler.add(SIGTERM, library);
  handler.add(SIGINT, standard);
  handler.add(SIGHUP, other);
  handler.start(SIGUSR1);
  for (int round = 1; round <= 3; ++round) {
    for (auto* notifier : {&library, &standard, &other}) {
      send(notifier == &library ? SIGTERM : notifier == &standard ? SIGINT : SIGHUP);
      ASSERT_TRUE(notifier->isTold(round));
    }
  }
  handler.stop();
  std::string expected;
  for (int round = 1; round <= 3; ++round) {
    expected += "handle: Got an exception:\n" + error.exStack() + "\n";
    expected += "handle: Got an unknown exception\nhandle: Got an unknown exception\n";
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
}

}  // namespace
}  // namespace kes::signal
