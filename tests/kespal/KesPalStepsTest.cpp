#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <future>
#include <iostream>

#include "kespal/ForkPending.h"
#include "kespal/RuntimeCalls.h"
#include "kespal/error/OsError.h"
#include "kespal/fs/File.h"
#include "kespal/kespal.h"
#include "kespal/proc/Child.h"
#include "kespal/signal/Mask.h"
#include "kespal/signal/Sender.h"
#include "support/ForkedChild.h"
#include "support/Sanitizer.h"

// The steps of the runtime object's construction and destruction: their order as the system sees it, and
// what becomes of a step that fails.

namespace kes {
namespace {

using test::inChild;
using test::RuntimeCalls;

/// What a construction with these flags asks of the system.
std::string constructionOf(bool quitHandling, bool forkPending) {
  return inChild([=]() -> int {
           ::setenv("KES_NO_COLOR", "", 1);
           RuntimeCalls::show();
           const KesPal runtime(quitHandling, forkPending, Locale::System, nullptr);
           ::_exit(0);
         })
      .out;
}

TEST(KesPalStepsTest, TheModulesAreInitialisedInTheirOrder) {
  const std::string modules =
      " KES_BACKTRACE /dev/null /dev/null setlocale KES_I18N_DIR getlogin_r clock_gettime tzset KES_NO_COLOR"
      " KESPAL_NO_TERMINATE_HANDLER";
  EXPECT_EQ(constructionOf(false, false), " block" + modules);
  EXPECT_EQ(constructionOf(false, true), " block" + modules);
  EXPECT_EQ(constructionOf(true, true), " block" + modules);
  EXPECT_EQ(constructionOf(true, false), " block thread" + modules);
}

struct QuitWatcher : IQuitHandler {
  void handleQuit() override { quit.set_value(); }
  std::promise<void> quit;
};

TEST(KesPalStepsTest, TheEndStopsTheThreadsClosesTheFilesAndSendsTheSignal) {
  const auto child = inChild([] {
    QuitWatcher watcher;
    KesPal runtime(true, false, Locale::System, nullptr);
    runtime.setQuitStatus(true);
    runtime.addQuitHandler(watcher);
    proc::Child program({"/bin/true"});
    program.create(false);
    program.wait(false, {});
    signal::Sender::signalProc(SIGTERM, ::getpid());
    watcher.quit.get_future().wait();
    RuntimeCalls::show();
    return 0;
  });
  EXPECT_EQ(child.out, " join join close close restore kill");
  KES_SKIP_UNDER_THREAD_SANITIZER("handles every signal itself");
  EXPECT_EQ(child.signal(), SIGTERM);
}

// --- steps that fail

std::string blockedSignals() {
  std::string names;
  const signal::Set mask = signal::Mask::get();
  for (int number = 1; number < 32; ++number) {
    if (mask.contains(number)) names += ::sigabbrev_np(number);
  }
  return names;
}

/// What is raised when a step of the construction fails, and then "clean" if nothing is left of it.
std::string afterFailureOf(const std::function<void()>& sabotage, bool forkPending = false) {
  return inChild([&] {
           signal::Mask::call({SIGALRM, SIGUSR2}, SIG_BLOCK);
           const std::string blockedBefore = blockedSignals();
           sabotage();
           try {
             const KesPal runtime(true, forkPending, Locale::System, nullptr);
           } catch (const Exception& error) {
             std::cout << error.text();
           }
           RuntimeCalls::refuseNothing();
           const bool clean = KesPal::m_instance == nullptr && fs::File::m_null_in == nullptr &&
                              !ForkPending::m_pending && blockedSignals() == blockedBefore &&
                              thread::BasicThread::activeThreads() == 0;
           std::cout << (clean ? ", clean" : ", not clean");
           return 0;
         })
      .out;
}

TEST(KesPalStepsTest, AMaskThatCannotBeReadFailsTheConstruction) {
  for (bool forkPending : {false, true}) {
    EXPECT_EQ(afterFailureOf([] { RuntimeCalls::refuse(RuntimeCalls::Sigmask, EINVAL); }, forkPending),
              OsError(EINVAL).text() + ", clean");
  }
}

TEST(KesPalStepsTest, AMaskThatCannotBeChangedFailsTheConstruction) {
  for (bool forkPending : {false, true}) {
    EXPECT_EQ(afterFailureOf([] { RuntimeCalls::refuse(RuntimeCalls::Sigmask, EINVAL, 1); }, forkPending),
              OsError(EINVAL).text() + ", clean");
  }
}

TEST(KesPalStepsTest, ASignalThreadThatCannotBeStartedFailsTheConstruction) {
  EXPECT_EQ(afterFailureOf([] { RuntimeCalls::refuse(RuntimeCalls::ThreadCreate, EAGAIN); }),
            OsError(EAGAIN).text() + ", clean");
}

TEST(KesPalStepsTest, ANullDeviceThatCannotBeOpenedFailsTheConstruction) {
  for (int opened : {0, 1}) {
    EXPECT_EQ(afterFailureOf([opened] { RuntimeCalls::refuse(RuntimeCalls::Open, EMFILE, opened); }),
              "/dev/null: " + OsError(EMFILE).text() + ", clean");
  }
}

TEST(KesPalStepsTest, AClockThatCannotBeReadFailsTheConstruction) {
  for (bool forkPending : {false, true}) {
    EXPECT_EQ(afterFailureOf([] { RuntimeCalls::refuse(RuntimeCalls::ClockGettime, EPERM); }, forkPending),
              OsError(EPERM).text() + ", clean");
  }
}

TEST(KesPalStepsTest, AfterAConstructionThatFailedTheNextOneSucceeds) {
  const auto child = inChild([] {
    try {
      RuntimeCalls::refuse(RuntimeCalls::ClockGettime, EPERM);
      const KesPal runtime(true, false, Locale::System, nullptr);
    } catch (const OsError&) {
      RuntimeCalls::refuseNothing();
    }
    const KesPal runtime(true, false, Locale::System, nullptr);
    return signal::Set::m_original.contains(SIGTERM) || !signal::Mask::get().contains(SIGTERM) ? 1 : 0;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

struct ForkWatcher : IForkHandler {
  explicit ForkWatcher(char letter) : name(letter) {}
  void afterFork() override {
    std::cout << name;
    if (name == '!') raiseAt(KES_HERE, OsError(EIO));
  }
  char name;
};

TEST(KesPalStepsTest, ASignalThreadThatCannotBeStartedAfterTheForkIsTriedAgainAndNoHandlerIsLost) {
  const auto child = inChild([] {
    ForkWatcher watcher('w');
    KesPal runtime(true, true, Locale::System, nullptr);
    runtime.addForkHandler(watcher);
    for (int i = 0; i < 2; ++i) {
      RuntimeCalls::refuse(RuntimeCalls::ThreadCreate, EAGAIN);
      try {
        runtime.forkDone();
      } catch (const OsError& error) {
        std::cout << error.text() << runtime.forkPending() << ForkPending::m_pending << ' ';
      }
    }
    RuntimeCalls::refuseNothing();
    runtime.forkDone();
    runtime.forkDone();
    std::cout << runtime.forkPending() << thread::BasicThread::activeThreads();
    return 0;
  });
  const std::string refused = OsError(EAGAIN).text() + "11 ";
  EXPECT_THAT(child.out, testing::AnyOf(refused + refused + "w01", refused + refused + "w00"));
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(KesPalStepsTest, AForkHandlerThatThrowsKeepsNoneBehindItFromBeingCalledByTheNextTry) {
  const auto child = inChild([] {
    ForkWatcher a('a'), bad('!'), b('b');
    KesPal runtime(true, true, Locale::System, nullptr);
    for (ForkWatcher* handler : {&a, &bad, &b}) runtime.addForkHandler(*handler);
    try {
      runtime.forkDone();
    } catch (const OsError&) {
      std::cout << runtime.forkPending();
    }
    runtime.forkDone();
    std::cout << runtime.forkPending();
    return 0;
  });
  EXPECT_EQ(child.out, "a!1b0");
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(KesPalStepsTest, ASignalThreadThatCannotBeStoppedEndsTheProgram) {
  const auto child = inChild([] {
    const KesPal runtime(true, false, Locale::System, nullptr);
    RuntimeCalls::refuse(RuntimeCalls::ThreadKill, EINVAL);
    return 0;
  });
  EXPECT_EQ(child.signal(), SIGABRT);
  EXPECT_THAT(child.err, testing::HasSubstr("(sendMgmSig)"));
  EXPECT_THAT(child.err, testing::EndsWith("Terminating program\n\n"));
}

TEST(KesPalStepsTest, AMaskThatCannotBeRestoredInTheEndIsReportedAndEndsTheProgram) {
  const auto child = inChild([] {
    QuitWatcher watcher;
    KesPal runtime(true, false, Locale::System, nullptr);
    runtime.setQuitStatus(true);
    runtime.addQuitHandler(watcher);
    signal::Sender::signalProc(SIGTERM, ::getpid());
    watcher.quit.get_future().wait();
    RuntimeCalls::refuse(RuntimeCalls::Sigmask, EINVAL);
    return 0;
  });
  EXPECT_EQ(child.signal(), SIGABRT);
  EXPECT_THAT(child.err, testing::HasSubstr("(call)"));
  EXPECT_THAT(child.err, testing::HasSubstr(OsError(EINVAL).text()));
  EXPECT_THAT(child.err, testing::EndsWith("Terminating program\n\n"));
}

TEST(KesPalStepsTest, AQuitSignalThatCannotBeSentEndsTheProgramAllTheSame) {
  const auto child = inChild([] {
    QuitWatcher watcher;
    KesPal runtime(true, false, Locale::System, nullptr);
    runtime.setQuitStatus(true);
    runtime.addQuitHandler(watcher);
    signal::Sender::signalProc(SIGTERM, ::getpid());
    watcher.quit.get_future().wait();
    RuntimeCalls::refuse(RuntimeCalls::Kill, EPERM);
    return 0;
  });
  EXPECT_EQ(child.signal(), SIGABRT);
  EXPECT_THAT(child.err, testing::HasSubstr("(signalProc)"));
  EXPECT_THAT(child.err, testing::EndsWith("Terminating program\n\n"));
}

}  // namespace
}  // namespace kes
