#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <future>
#include <iostream>

#include "kespal/ForkPending.h"
#include "kespal/error/OsError.h"
#include "kespal/fs/File.h"
#include "kespal/kespal.h"
#include "kespal/proc/Child.h"
#include "kespal/signal/Mask.h"
#include "kespal/signal/Sender.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/Sanitizer.h"

// The steps of the runtime object's construction and destruction: their order as the system sees it, and
// what becomes of a step that fails.

namespace kes {
namespace {

using test::Call;
using test::inChild;
using test::Instead;
using test::real;
using test::Refuse;

void say(const std::string& call) {
  if (::gettid() != ::getpid()) return;
  const std::string text = ' ' + call;
  if (::write(STDOUT_FILENO, text.data(), text.size()) == -1) ::_exit(98);
}

/// Says that a call is made.
template <Call call>
struct Told : Instead<call> {
  explicit Told(const char* text)
      : Instead<call>([text](auto... arguments) {
          say(text);
          return real<call>(arguments...);
        }) {}
};

/// The main thread's calls go to standard output as they are made, a blank before each.
struct EveryStepTold {
  const Instead<Call::pthread_sigmask> mask{[](int how, const sigset_t* set, sigset_t* before) {
    const bool pipe = set != nullptr && ::sigismember(set, SIGPIPE) == 1;
    if (how == SIG_BLOCK && pipe) say("block");
    if (how == SIG_SETMASK && set != nullptr && !pipe) say("restore");
    return real<Call::pthread_sigmask>(how, set, before);
  }};
  const Instead<Call::open> open{[](const char* path, int flags, void* mode) {
    say(path);
    return real<Call::open>(path, flags, mode);
  }};
  const Instead<Call::getenv> variable{[](const char* name) {
    if (std::string(name).starts_with("KES")) say(name);
    return real<Call::getenv>(name);
  }};
  const Told<Call::pthread_create> thread{"thread"};
  const Told<Call::pthread_join> join{"join"};
  const Told<Call::kill> kill{"kill"};
  const Told<Call::close> close{"close"};
  const Told<Call::setlocale> locale{"setlocale"};
  const Told<Call::getlogin_r> login{"getlogin_r"};
  const Told<Call::clock_gettime> clock{"clock_gettime"};
  const Told<Call::tzset> zone{"tzset"};
};

/// What a construction with these flags asks of the system.
std::string constructionOf(bool quitHandling, bool forkPending) {
  return inChild([=]() -> int {
           ::setenv("KES_NO_COLOR", "", 1);
           static const EveryStepTold told;
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
    static const EveryStepTold told;
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
std::string afterFailureOf(Call call, int errnum, bool forkPending, int skip = 0) {
  return inChild([&] {
           signal::Mask::call({SIGALRM, SIGUSR2}, SIG_BLOCK);
           const std::string blockedBefore = blockedSignals();
           try {
             const Refuse failing(call, errnum, {.skip = skip});
             const KesPal runtime(true, forkPending, Locale::System, nullptr);
           } catch (const Exception& error) {
             std::cout << error.text();
           }
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
    EXPECT_EQ(afterFailureOf(Call::pthread_sigmask, EINVAL, forkPending), OsError(EINVAL).text() + ", clean");
  }
}

TEST(KesPalStepsTest, AMaskThatCannotBeChangedFailsTheConstruction) {
  for (bool forkPending : {false, true}) {
    EXPECT_EQ(afterFailureOf(Call::pthread_sigmask, EINVAL, forkPending, 1),
              OsError(EINVAL).text() + ", clean");
  }
}

TEST(KesPalStepsTest, ASignalThreadThatCannotBeStartedFailsTheConstruction) {
  EXPECT_EQ(afterFailureOf(Call::pthread_create, EAGAIN, false), OsError(EAGAIN).text() + ", clean");
}

TEST(KesPalStepsTest, ANullDeviceThatCannotBeOpenedFailsTheConstruction) {
  for (int opened : {0, 1}) {
    EXPECT_EQ(afterFailureOf(Call::open, EMFILE, false, opened),
              "/dev/null: " + OsError(EMFILE).text() + ", clean");
  }
}

TEST(KesPalStepsTest, AClockThatCannotBeReadFailsTheConstruction) {
  for (bool forkPending : {false, true}) {
    EXPECT_EQ(afterFailureOf(Call::clock_gettime, EPERM, forkPending), OsError(EPERM).text() + ", clean");
  }
}

TEST(KesPalStepsTest, AfterAConstructionThatFailedTheNextOneSucceeds) {
  const auto child = inChild([] {
    try {
      const Refuse failing(Call::clock_gettime, EPERM);
      const KesPal runtime(true, false, Locale::System, nullptr);
    } catch (const OsError&) {
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
      const Refuse failing(Call::pthread_create, EAGAIN);
      try {
        runtime.forkDone();
      } catch (const OsError& error) {
        std::cout << error.text() << runtime.forkPending() << ForkPending::m_pending << ' ';
      }
    }
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
    static const Refuse failing(Call::pthread_kill, EINVAL);
    return 0;
  });
  EXPECT_EQ(child.signal(), SIGABRT);
  EXPECT_THAT(child.err, testing::HasSubstr("(sendMgmSig)"));
  EXPECT_THAT(child.err, testing::EndsWith("Terminating program\n\n"));
}

TEST(KesPalStepsTest, AQuitHandlerThatDestroysTheRuntimeObjectEndsTheProgram) {
  struct Exiting : IQuitHandler {
    void handleQuit() override { std::exit(3); }
  };
  const auto child = inChild([]() -> int {
    ::alarm(60);
    static KesPal runtime(true, false, Locale::System, nullptr);
    Exiting exiting;
    runtime.addQuitHandler(exiting);
    signal::Sender::signalProc(SIGTERM, ::getpid());
    for (;;) ::pause();
  });
  EXPECT_EQ(child.signal(), SIGABRT);
  EXPECT_THAT(child.err, testing::HasSubstr("(stop)"));
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
    static const Refuse failing(Call::pthread_sigmask, EINVAL);
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
    static const Refuse failing(Call::kill, EPERM);
    return 0;
  });
  EXPECT_EQ(child.signal(), SIGABRT);
  EXPECT_THAT(child.err, testing::HasSubstr("(signalProc)"));
  EXPECT_THAT(child.err, testing::EndsWith("Terminating program\n\n"));
}

}  // namespace
}  // namespace kes
