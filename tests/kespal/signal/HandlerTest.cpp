#include "kespal/signal/Handler.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <future>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "kespal/State.h"
#include "kespal/error/FsError.h"
#include "kespal/os/thread/Native.h"
#include "kespal/signal/Mask.h"
#include "kespal/signal/Sender.h"
#include "kespal/thread/ErrorAt.h"
#include "kespal/thread/Faults.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/Gate.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

namespace kes::signal {
namespace {

using namespace test;

constexpr const char* source = "src/os/posix/signal/Handler";

Raised withoutLine(Raised raised) {
  raised.line = 0;
  return raised;
}

const Raised notRegistered = usageError("tried to remove non-registered signal", source, 0, "remove");

/// Counts what it is told, and may do something more.
struct Notifier : Handler::INotify {
  explicit Notifier(std::function<void(int)> more = {}) : then(std::move(more)) {}
  void notify(const int& signal, const siginfo_t& info) override {
    static const siginfo_t zeros = {};
    allZeros = std::memcmp(&info, &zeros, sizeof zeros) == 0;
    last = signal;
    ++count;
    if (then) then(signal);
  }
  std::atomic<int> count{0};
  std::atomic<int> last{0};
  std::atomic<bool> allZeros{false};
  std::function<void(int)> then;
};

/// Every thread blocks the signals that a handler takes; the runtime object does this in a program.
class HandlerTest : public testing::Test {
 protected:
  void SetUp() override { Mask::call({SIGUSR1, SIGUSR2, SIGTERM, SIGINT, SIGHUP}, SIG_BLOCK); }
  void TearDown() override {
    // What is still pending must not end the test program.
    for (const int signal : {SIGUSR1, SIGUSR2, SIGTERM, SIGINT, SIGHUP, SIGRTMIN + 6}) {
      ::signal(signal, SIG_IGN);
      ::signal(signal, SIG_DFL);
    }
    Mask::call(before_, SIG_SETMASK);
  }

  static void send(int signal) { Sender::signalProc(signal, ::getpid()); }

 private:
  const Set before_ = Mask::get();
};

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
  ASSERT_TRUE(eventually([&] { return notifier.count == 1; }));
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
  EXPECT_TRUE(eventually([&] { return notifier.count == 1; }));
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
  EXPECT_TRUE(eventually([&] { return second.count == 1; }));
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
  EXPECT_TRUE(eventually([&] { return first.count == 1; }));
  EXPECT_EQ(withoutLine(raisedBy([&] { handler.remove(SIGTERM, second); })), notRegistered);
  handler.remove(SIGTERM, first);
  EXPECT_EQ(withoutLine(raisedBy([&] { handler.remove(SIGTERM, first); })), notRegistered);
  handler.add(SIGTERM, second);
  send(SIGTERM);
  EXPECT_TRUE(eventually([&] { return second.count == 1; }));
  handler.stop();
  EXPECT_EQ(first.count, 1);
}

TEST_F(HandlerTest, RemovingWhatWasNeverAddedIsMisuse) {
  Handler handler;
  Notifier notifier;
  EXPECT_EQ(withoutLine(raisedBy([&] { handler.remove(SIGTERM, notifier); })), notRegistered);
  handler.add(SIGINT, notifier);
  EXPECT_EQ(withoutLine(raisedBy([&] { handler.remove(SIGTERM, notifier); })), notRegistered);
  EXPECT_NO_THROW(handler.remove(SIGINT, notifier));
}

TEST_F(HandlerTest, TheManagementSignalCallsNoNotifierAndCannotBeRegistered) {
  Handler handler;
  Notifier notifier, other;
  handler.start(SIGUSR1);
  handler.add(SIGUSR1, notifier);
  EXPECT_EQ(withoutLine(raisedBy([&] { handler.remove(SIGUSR1, notifier); })), notRegistered);
  handler.add(SIGTERM, other);
  for (int i = 0; i < 100; ++i) handler.sendMgmSig();
  send(SIGTERM);
  EXPECT_TRUE(eventually([&] { return other.count == 1; }));
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

TEST_F(HandlerTest, ASignalAbove32IsRegisteredButNeverWaitedFor) {
  Handler handler;
  Notifier notifier;
  const int signal = SIGRTMIN + 6;
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, signal);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  handler.start(SIGUSR1);
  EXPECT_NO_THROW(handler.add(signal, notifier));
  send(signal);
  Notifier other;
  handler.add(SIGTERM, other);
  send(SIGTERM);
  EXPECT_TRUE(eventually([&] { return other.count == 1; }));
  EXPECT_EQ(notifier.count, 0);
  EXPECT_NO_THROW(handler.remove(signal, notifier));
  EXPECT_EQ(withoutLine(raisedBy([&] { handler.remove(signal, notifier); })), notRegistered);
  handler.stop();
}

TEST_F(HandlerTest, SeveralNotifiersOfASignalAbove32AreEachRegistered) {
  Handler handler;
  Notifier first, second;
  const int signal = SIGRTMIN + 6;
  handler.add(signal, first);
  handler.add(signal, second);
  handler.add(signal, first);
  EXPECT_NO_THROW(handler.remove(signal, first));
  EXPECT_NO_THROW(handler.remove(signal, first));
  EXPECT_NO_THROW(handler.remove(signal, second));
  EXPECT_EQ(withoutLine(raisedBy([&] { handler.remove(signal, second); })), notRegistered);
}

TEST_F(HandlerTest, WhatIsNoSignalOrCannotBeHandledIsRefused) {
  Handler handler;
  Notifier notifier;
  for (const int signal : {0, -1, 65, 4711, SIGKILL, SIGSTOP}) {
    EXPECT_EQ(withoutLine(raisedBy([&] { handler.add(signal, notifier); })),
              osError(EINVAL, source, 0, "add"))
        << signal;
    EXPECT_EQ(withoutLine(raisedBy([&] { handler.remove(signal, notifier); })), notRegistered) << signal;
  }
}

TEST_F(HandlerTest, ADispositionThatCannotBeSetRegistersNothingAndLeavesTheHandlerUsable) {
  Handler handler;
  Notifier notifier;
  {
    const Fault fault(Call::Sigaction, EPERM);
    EXPECT_EQ(withoutLine(raisedBy([&] { handler.add(SIGTERM, notifier); })),
              osError(EPERM, source, 0, "add"));
  }
  EXPECT_EQ(withoutLine(raisedBy([&] { handler.remove(SIGTERM, notifier); })), notRegistered);
  handler.start(SIGUSR1);
  handler.add(SIGTERM, notifier);
  send(SIGTERM);
  EXPECT_TRUE(eventually([&] { return notifier.count == 1; }));
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
  EXPECT_TRUE(eventually([&] { return notifier.count == 1; }));
  handler.stop();
}

TEST_F(HandlerTest, TheThreadHasTheHandledSignalsBlocked) {
  KES_SKIP_UNDER_THREAD_SANITIZER("handles every signal itself");
  Handler handler;
  pid_t number = 0;
  Notifier notifier([&](int) { number = ::gettid(); });
  handler.add(SIGTERM, notifier);
  handler.start(SIGUSR1);
  send(SIGTERM);
  ASSERT_TRUE(eventually([&] { return notifier.count == 1; }));
  const std::string status = "/proc/self/task/" + std::to_string(number) + "/status";
  // While it waits, the kernel shows what it waits for as not blocked.
  EXPECT_TRUE(holds(procMask(status, "SigBlk"), SIGUSR2));
  EXPECT_TRUE(holds(procMask(status, "SigBlk"), SIGINT));
  handler.stop();
}

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
    EXPECT_TRUE(eventually([&] { return notifier.count == i + 1; }));
    handler.stop();
  }
  handler.start(SIGUSR1);
  handler.add(SIGUSR2, formerlyManaging);
  send(SIGUSR2);
  EXPECT_TRUE(eventually([&] { return formerlyManaging.count == 1; }));
  handler.stop();
}

TEST_F(HandlerTest, StartingARunningHandlerIsMisuseAndChangesNothing) {
  Handler handler;
  handler.start(SIGUSR1);
  EXPECT_EQ(
      raisedBy([&] { handler.start(SIGUSR2); }),
      usageError("Tried to start a thread that is not BURIED", "src/os/posix/thread/Thread", 154, "create"));
  Notifier notifier;
  handler.add(SIGUSR2, notifier);
  send(SIGUSR2);
  EXPECT_TRUE(eventually([&] { return notifier.count == 1; }));
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
  EXPECT_EQ(withoutLine(raisedBy([&] { handler.remove(SIGTERM, notifier); })), notRegistered);
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
  Notifier notifier;
  handler.add(SIGTERM, notifier);
  send(SIGTERM);
  EXPECT_TRUE(eventually([&] { return notifier.count == 1; }));
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
      ASSERT_TRUE(eventually([&] { return notifier->count == round; }));
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

TEST_F(HandlerTest, AStormOfSignalsIsDeliveredAndLosesNoneThatWasWaitedFor) {
  Handler handler;
  Notifier notifier;
  handler.add(SIGTERM, notifier);
  handler.start(SIGUSR1);
  // A signal that is pending already is not queued again, so each is awaited before the next.
  for (int i = 1; i <= 5000; ++i) {
    send(SIGTERM);
    while (notifier.count < i) std::this_thread::yield();
  }
  handler.stop();
  EXPECT_EQ(notifier.count, 5000);
}

TEST_F(HandlerTest, ManyThreadsMaySendAtOnce) {
  Handler handler;
  Notifier notifier;
  handler.add(SIGTERM, notifier);
  handler.start(SIGUSR1);
  std::vector<std::thread> senders;
  for (int i = 0; i < 4; ++i) {
    senders.emplace_back([] {
      for (int j = 0; j < 2000; ++j) send(SIGTERM);
    });
  }
  for (std::thread& sender : senders) sender.join();
  EXPECT_TRUE(eventually([&] { return notifier.count >= 1; }));
  // Whatever came before, the next one gets through.
  const int before = notifier.count;
  EXPECT_TRUE(eventually([&] {
    send(SIGTERM);
    return notifier.count > before;
  }));
  handler.stop();
  EXPECT_LE(before, 8000);
}

class HandlerModelTest : public HandlerTest, public testing::WithParamInterface<unsigned> {};

// Each thread owns one signal and changes its registration at random while signals of all kinds arrive; it
// knows what each of its calls has to do.
TEST_P(HandlerModelTest, RegistrationsChangeFromSeveralThreadsWhileSignalsArrive) {
  constexpr int signals[] = {SIGTERM, SIGINT, SIGHUP};
  Handler handler;
  handler.start(SIGUSR1);
  const auto work = [&](unsigned number) {
    std::mt19937 random(GetParam() * 10 + number);
    const int signal = signals[number];
    Notifier notifiers[2];
    Notifier* registered = nullptr;
    for (int i = 0; i < 400; ++i) {
      Notifier& notifier = notifiers[random() % 2];
      switch (random() % 4) {
        case 0:
          handler.add(signal, notifier);
          if (registered == nullptr) registered = &notifier;
          break;
        case 1:
          if (registered == &notifier) {
            handler.remove(signal, notifier);
            registered = nullptr;
          } else {
            EXPECT_EQ(withoutLine(raisedBy([&] { handler.remove(signal, notifier); })), notRegistered);
          }
          break;
        case 2:
          send(signal);
          break;
        default:
          if (registered != nullptr) {
            const int before = registered->count;
            EXPECT_TRUE(eventually([&] {
              send(signal);
              return registered->count > before;
            }));
          }
      }
    }
    if (registered != nullptr) handler.remove(signal, *registered);
  };
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 3; ++i) threads.emplace_back(work, i);
  for (std::thread& thread : threads) thread.join();
  handler.stop();
}

INSTANTIATE_TEST_SUITE_P(FixedSeeds, HandlerModelTest, testing::Values(1, 2, 3, 4));

TEST_F(HandlerTest, ItCanBeStartedAndStoppedFromSeveralThreadsAtOnce) {
  Handler handler;
  const auto work = [&] {
    for (int i = 0; i < 100; ++i) {
      try {
        handler.start(SIGUSR1);
      } catch (const UsageError&) {
        // another thread started it
      }
      handler.stop();
    }
  };
  std::thread first(work), second(work), third(work);
  first.join(), second.join(), third.join();
  handler.stop();
  EXPECT_EQ(thread::BasicThread::activeThreads(), 0);
}

}  // namespace
}  // namespace kes::signal
