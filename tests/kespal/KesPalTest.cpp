#include "kespal/kespal.h"

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <set>
#include <thread>

#include "kespal/ForkPending.h"
#include "kespal/Terminal.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/File.h"
#include "kespal/proc/Child.h"
#include "kespal/signal/Mask.h"
#include "kespal/signal/Sender.h"
#include "kespal/thread/Thread.h"
#include "kespal/time/Clock.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"

namespace kes {
namespace {

using test::errorOf;
using test::inChild;

std::set<std::string> blockedSignals() {
  std::set<std::string> names;
  const signal::Set mask = signal::Mask::get();
  for (int number = 1; number < 32; ++number) {
    if (mask.contains(number)) names.insert(::sigabbrev_np(number));
  }
  return names;
}

/// As the system counts them; with the thread sanitizer, which has some for itself, as the library does: a
/// new one from its first step on.
int threadsOfProcess() {
  if (test::threadSanitizer) return 1 + static_cast<int>(thread::BasicThread::activeThreads());
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word == "Threads:") {
      int count = 0;
      status >> count;
      return count;
    }
  }
  return -1;
}

bool processGetsThreads(int count) {
  return test::eventually([count] { return threadsOfProcess() == count; });
}

struct QuitCounter : IQuitHandler {
  void handleQuit() override {
    ++calls;
    quit.set_value();
  }
  std::atomic<int> calls{0};
  std::promise<void> quit;
};

struct Thrower : IQuitHandler {
  void handleQuit() override { raiseAt(KES_HERE, RuntimeError("cannot quit")); }
};

struct ForkWatcher : IForkHandler {
  explicit ForkWatcher(char letter, std::string& text) : name(letter), order(text) {}
  void afterFork() override { order += name; }
  char name;
  std::string& order;
};

TEST(KesPalTest, WithoutQuitHandlingThreeSignalsAreBlockedAndNoThreadIsStarted) {
  const auto child = inChild([] {
    const KesPal runtime(false, false, Locale::System, nullptr);
    return blockedSignals() == std::set<std::string>{"PIPE", "USR1", "USR2"} && threadsOfProcess() == 1 ? 0
                                                                                                        : 1;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.err;
}

TEST(KesPalTest, WithQuitHandlingFiveSignalsAreBlockedAndTheSignalThreadRuns) {
  const auto child = inChild([] {
    const KesPal runtime(true, false, Locale::System, nullptr);
    return blockedSignals() == std::set<std::string>{"PIPE", "USR1", "USR2", "INT", "TERM"} &&
                   processGetsThreads(2)
               ? 0
               : 1;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.err;
}

TEST(KesPalTest, SignalsThatWereBlockedBeforeStayBlocked) {
  const auto child = inChild([] {
    signal::Mask::call({SIGALRM}, SIG_BLOCK);
    const KesPal runtime(false, false, Locale::System, nullptr);
    return blockedSignals() == std::set<std::string>{"PIPE", "USR1", "USR2", "ALRM"} ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(KesPalTest, WhileAForkIsPendingNoThreadIsStartedUntilItIsDone) {
  const auto child = inChild([] {
    KesPal runtime(true, true, Locale::System, nullptr);
    std::cout << runtime.forkPending() << ForkPending::m_pending << threadsOfProcess();
    runtime.forkDone();
    std::cout << ' ' << runtime.forkPending() << ForkPending::m_pending << processGetsThreads(2);
    return 0;
  });
  EXPECT_EQ(child.out, "111 001");
}

TEST(KesPalTest, AThreadOfTheLibraryIsRefusedWhileAForkIsPending) {
  const auto child = inChild([] {
    struct Body : thread::CppThread::IThread {
      void thread(thread::CppThread&) override {}
    } body;
    KesPal runtime(false, true, Locale::System, nullptr);
    thread::CppThread thread("early", &body);
    std::cout << errorOf([&] { thread.run(); });
    runtime.forkDone();
    thread.run();
    thread.join();
    return 0;
  });
  EXPECT_EQ(child.out, "Tried to create a thread before forking!");
}

TEST(KesPalTest, WithoutQuitHandlingTheEndOfAPendingForkStartsNoThread) {
  const auto child = inChild([] {
    KesPal runtime(false, true, Locale::System, nullptr);
    runtime.forkDone();
    return threadsOfProcess();
  });
  EXPECT_EQ(child.exitCode(), 1);
}

TEST(KesPalTest, ForkHandlersAreCalledOnceInTheOrderOfTheirRegistration) {
  const auto child = inChild([] {
    std::string order;
    ForkWatcher b('b', order), a('a', order), late('x', order);
    KesPal runtime(false, true, Locale::System, nullptr);
    runtime.addForkHandler(b);
    runtime.addForkHandler(a);
    runtime.addForkHandler(b);
    runtime.forkDone();
    runtime.addForkHandler(late);
    runtime.forkDone();
    std::cout << order;
    return 0;
  });
  EXPECT_EQ(child.out, "bab");
}

TEST(KesPalTest, AForkHandlerIsIgnoredWhenNoForkIsPending) {
  const auto child = inChild([] {
    std::string order;
    ForkWatcher watcher('x', order);
    KesPal runtime(false, false, Locale::System, nullptr);
    runtime.addForkHandler(watcher);
    runtime.forkDone();
    std::cout << '<' << order << '>';
    return 0;
  });
  EXPECT_EQ(child.out, "<>");
}

TEST(KesPalTest, TheInstanceIsKnownFromTheStartOfTheConstructionToTheEndOfTheDestruction) {
  const auto child = inChild([] {
    const AppBase app;
    std::cout << (KesPal::m_instance == nullptr);
    {
      const KesPal runtime(false, false, Locale::System, &app);
      std::cout << (KesPal::m_instance == &runtime) << (runtime.app() == &app);
    }
    std::cout << (KesPal::m_instance == nullptr);
    return 0;
  });
  EXPECT_EQ(child.out, "1111");
}

TEST(KesPalTest, ARuntimeObjectOnTheHeapIsDeletedLikeAnyOther) {
  const auto child = inChild([] {
    const KesPal* const runtime = new KesPal(true, false, Locale::System, nullptr);
    const bool known = KesPal::m_instance == runtime;
    delete runtime;
    return known && KesPal::m_instance == nullptr && threadsOfProcess() == 1 ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(KesPalTest, TheConstructionInitialisesEveryModule) {
  const auto child = inChild([] {
    ::setenv("KES_BACKTRACE", "", 1);
    ::setenv("KES_FORCE_COLOR", "", 1);
    ::setenv("KES_I18N_DIR", "/catalogues", 1);
    ::unsetenv("KES_NO_COLOR");
    const KesPal runtime(false, false, Locale::System, nullptr);
    std::cout << Exception::m_gen_backtraces << (fs::File::m_null_in != nullptr)
              << (fs::File::m_null_out != nullptr) << Locale::m_locale_dir
              << time::RealtimeClock().sec() / 1'000'000'000
              << (time::InitClock::m_init_time.sec +
                      static_cast<unsigned>(time::InitClock::m_init_time.nsec) !=
                  0)
              << term::Terminal::m_stdout_color;
    term::Terminal::setColorMode(false, false);
    return 0;
  });
  EXPECT_EQ(child.out, "111/catalogues111");
}

TEST(KesPalTest, TheDestructionEndsTheCollectorAndTheSharedFiles) {
  const auto child = inChild([] {
    {
      const KesPal runtime(false, false, Locale::System, nullptr);
      proc::Child program({"/bin/true"});
      program.create(false);
      program.wait(false, {});
      std::cout << (proc::Child::m_shepherd != nullptr);
    }
    std::cout << (proc::Child::m_shepherd == nullptr) << (fs::File::m_null_in == nullptr)
              << threadsOfProcess();
    return 0;
  });
  EXPECT_EQ(child.out, "1111");
}

TEST(KesPalTest, QuitCallsEveryHandlerThatIsRegistered) {
  const auto child = inChild([] {
    QuitCounter one, two, gone;
    KesPal runtime(false, false, Locale::System, nullptr);
    for (QuitCounter* handler : {&one, &two, &gone}) runtime.addQuitHandler(*handler);
    runtime.addQuitHandler(one);
    runtime.delQuitHandler(gone);
    runtime.delQuitHandler(gone);
    runtime.quit();
    return one.calls == 1 && two.calls == 1 && gone.calls == 0 ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(KesPalTest, AQuitHandlerThatThrowsStopsTheWalkAndIsReported) {
  const auto child = inChild([] {
    // The walk is in the order of the addresses.
    struct Pair {
      Thrower first;
      QuitCounter second;
    } handlers;
    KesPal runtime(false, false, Locale::System, nullptr);
    runtime.addQuitHandler(handlers.first);
    runtime.addQuitHandler(handlers.second);
    runtime.quit();
    std::cout << handlers.second.calls;
    runtime.delQuitHandler(handlers.first);
    runtime.quit();
    std::cout << handlers.second.calls;
    return 0;
  });
  EXPECT_EQ(child.out, "01");
  EXPECT_THAT(child.err,
              testing::StartsWith("Error processing quit event:\n\n\n#1)\n\tException occured at "));
  EXPECT_THAT(child.err, testing::EndsWith("\tRuntime error occured. cannot quit\n\n"));
}

/// A child that gets `signal` from itself while quit handling is on; what `atQuit` makes of it then.
test::ChildResult quitBy(int signal, const std::function<void(KesPal&)>& atQuit) {
  return inChild([&] {
    QuitCounter counter;
    KesPal runtime(true, false, Locale::System, nullptr);
    runtime.addQuitHandler(counter);
    signal::Sender::signalProc(signal, ::getpid());
    counter.quit.get_future().wait();
    runtime.delQuitHandler(counter);
    std::cout << "asked to quit" << std::flush;
    atQuit(runtime);
    return 5;
  });
}

TEST(KesPalTest, AQuitHandlerThatThrowsAnythingElseIsReportedByTheSignalThread) {
  struct Stranger : IQuitHandler {
    void handleQuit() override { throw 7; }
  };
  const auto child = inChild([] {
    // The walk is in the order of the addresses.
    struct Pair {
      QuitCounter first;
      Stranger second;
    } handlers;
    KesPal runtime(true, false, Locale::System, nullptr);
    runtime.addQuitHandler(handlers.first);
    runtime.addQuitHandler(handlers.second);
    signal::Sender::signalProc(SIGTERM, ::getpid());
    handlers.first.quit.get_future().wait();
    runtime.delQuitHandler(handlers.first);  // waits for the walk to end
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_EQ(child.err, "handle: Got an unknown exception\n");
}

TEST(KesPalTest, WithoutASignalThreadThereIsNothingToSetUpForAQuit) {
  const auto child = inChild([] {
    KesPal runtime(false, false, Locale::System, nullptr);
    runtime.setupQuitHandling();
    return threadsOfProcess();
  });
  EXPECT_EQ(child.exitCode(), 1);
}

TEST(KesPalTest, ASignalCallsTheQuitHandlersAndTheProcessGoesOn) {
  for (int signal : {SIGINT, SIGTERM}) {
    const auto child = quitBy(signal, [](KesPal&) {});
    EXPECT_EQ(child.out, "asked to quit");
    EXPECT_EQ(child.exitCode(), 5);
  }
}

TEST(KesPalTest, WithQuitStatusTheDestructionEndsTheProcessByTheSignal) {
  KES_SKIP_UNDER_THREAD_SANITIZER("handles every signal itself");
  for (int signal : {SIGINT, SIGTERM}) {
    const auto child = quitBy(signal, [](KesPal& runtime) { runtime.setQuitStatus(true); });
    EXPECT_EQ(child.out, "asked to quit");
    EXPECT_EQ(child.signal(), signal);
  }
}

TEST(KesPalTest, QuitStatusWithoutASignalChangesNothing) {
  const auto child = inChild([] {
    KesPal runtime(true, false, Locale::System, nullptr);
    runtime.setQuitStatus(true);
    return 5;
  });
  EXPECT_EQ(child.exitCode(), 5);
}

TEST(KesPalTest, ExplicitQuitWithoutASignalEndsTheProcessAtOnceWithTheStatus) {
  KES_SKIP_UNDER_THREAD_SANITIZER("flushes buffers at every exit");
  const auto child = inChild([] {
    struct Loud {
      ~Loud() { std::cerr << "a destructor ran"; }
    } loud;
    KesPal runtime(true, false, Locale::System, nullptr);
    runtime.setQuitStatus(true);
    std::cout << "buffered";
    runtime.explicitQuit(3);
    return 5;
  });
  EXPECT_EQ(child.exitCode(), 3);
  EXPECT_EQ(child.out + child.err, "");
}

TEST(KesPalTest, ExplicitQuitWithoutQuitStatusEndsTheProcessAtOnceWithTheStatus) {
  const auto child = quitBy(SIGTERM, [](KesPal& runtime) { runtime.explicitQuit(3); });
  EXPECT_EQ(child.exitCode(), 3);
}

TEST(KesPalTest, ExplicitQuitEndsTheProcessByTheReceivedSignal) {
  KES_SKIP_UNDER_THREAD_SANITIZER("handles every signal itself");
  const auto child = quitBy(SIGTERM, [](KesPal& runtime) {
    runtime.setQuitStatus(true);
    runtime.explicitQuit(3);
  });
  EXPECT_EQ(child.signal(), SIGTERM);
}

TEST(KesPalTest, ExplicitQuitWorksFromAnyThread) {
  KES_SKIP_UNDER_THREAD_SANITIZER("handles every signal itself");
  const auto child = quitBy(SIGINT, [](KesPal& runtime) {
    runtime.setQuitStatus(true);
    std::thread([&runtime] { runtime.explicitQuit(3); }).join();
  });
  EXPECT_EQ(child.signal(), SIGINT);
}

TEST(KesPalTest, ExplicitQuitWorksFromAQuitHandlerOnTheSignalThread) {
  KES_SKIP_UNDER_THREAD_SANITIZER("handles every signal itself");
  struct Quitter : IQuitHandler {
    void handleQuit() override { KesPal::m_instance->explicitQuit(3); }
  };
  for (bool bySignal : {true, false}) {
    const auto child = inChild([bySignal] {
      Quitter quitter;
      KesPal runtime(true, false, Locale::System, nullptr);
      runtime.setQuitStatus(bySignal);
      runtime.addQuitHandler(quitter);
      signal::Sender::signalProc(SIGTERM, ::getpid());
      for (;;) ::pause();
      return 0;
    });
    EXPECT_EQ(child.signal(), bySignal ? SIGTERM : 0);
    EXPECT_EQ(child.exitCode(), bySignal ? -1 : 3);
  }
}

TEST(KesPalTest, CheckSignalQuitSaysWhetherTheSignalWasSent) {
  const auto child = inChild([] {
    KesPal runtime(true, false, Locale::System, nullptr);
    const bool before = runtime.checkSignalQuit();
    return before ? 1 : 0;
  });
  EXPECT_EQ(child.exitCode(), 0);
  const auto ignored = quitBy(SIGTERM, [](KesPal& runtime) {
    runtime.setQuitStatus(true);
    ::signal(SIGTERM, SIG_IGN);
    std::cout << (runtime.explicitQuit(3) ? " true" : " false");
  });
  EXPECT_EQ(ignored.out, "asked to quit true");
  EXPECT_EQ(ignored.exitCode(), 5);
}

TEST(KesPalTest, TheMaskThatTheProcessHadIsKeptForItsChildrenAndForItsEnd) {
  const auto child = inChild([] {
    signal::Mask::call({SIGALRM}, SIG_BLOCK);
    const KesPal runtime(true, false, Locale::System, nullptr);
    const auto& original = signal::Set::m_original;
    return original.contains(SIGALRM) && !original.contains(SIGTERM) && !original.contains(SIGPIPE) ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(KesPalTest, ASecondRuntimeObjectAfterTheFirstWorksAsTheFirst) {
  const auto child = inChild([] {
    for (int round = 0; round < 2; ++round) {
      QuitCounter counter;
      KesPal runtime(true, false, Locale::System, nullptr);
      runtime.addQuitHandler(counter);
      signal::Sender::signalProc(SIGTERM, ::getpid());
      counter.quit.get_future().wait();
      runtime.delQuitHandler(counter);
      std::cout << signal::Set::m_original.contains(SIGTERM) << signal::Set::m_original.contains(SIGPIPE)
                << threadsOfProcess();
    }
    std::cout << threadsOfProcess();
    return 0;
  });
  EXPECT_EQ(child.out, "0020021");
}

TEST(KesPalTest, SetSigmaskBlocksInTheCallingThreadOnly) {
  const auto child = inChild([] {
    KesPal runtime(false, false, Locale::System, nullptr);
    std::thread([&runtime] { runtime.setSigmask(true); }).join();
    return blockedSignals().contains("TERM") ? 1 : 0;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(KesPalTest, ADestructionInAProcessOfFiftyThreadsEndsBySigterm) {
  const auto child = inChild([] {
    struct Worker : thread::CoopThread::ICoopThread {
      void thread(thread::CoopThread& self) override {
        while (self.request() != thread::CoopThread::Return) {
          time::RealtimeClock soon;
          soon += std::chrono::milliseconds(1);
          self.sleep(soon);
        }
      }
    } body;
    QuitCounter counter;
    std::vector<std::unique_ptr<thread::CoopThread>> workers;
    KesPal runtime(true, false, Locale::System, nullptr);
    runtime.setQuitStatus(true);
    runtime.addQuitHandler(counter);
    for (int number = 0; number < 50; ++number) {
      workers.push_back(std::make_unique<thread::CoopThread>("worker " + std::to_string(number), &body));
      workers.back()->run();
    }
    signal::Sender::signalProc(SIGTERM, ::getpid());
    counter.quit.get_future().wait();
    for (auto& worker : workers) worker->requestReturn();
    for (auto& worker : workers) worker->join();
    runtime.delQuitHandler(counter);
    return 0;
  });
  EXPECT_EQ(child.err, "");
  KES_SKIP_UNDER_THREAD_SANITIZER("handles every signal itself");
  EXPECT_EQ(child.signal(), SIGTERM);
}

}  // namespace
}  // namespace kes
