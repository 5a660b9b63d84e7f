// The runtime object in a child that its program forked without a word, and threads that quit.
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <future>
#include <iostream>
#include <memory>
#include <optional>
#include <thread>
#include <type_traits>

#include "kespal/kespal.h"
#include "kespal/signal/Mask.h"
#include "kespal/signal/Sender.h"
#include "kespal/thread/Thread.h"
#include "support/Calls.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/Gate.h"
#include "support/Sanitizer.h"

namespace kes {
namespace {

using test::ChildResult;
using test::Gate;
using test::inChild;

static_assert(std::is_final_v<KesPal>, "the signal thread runs before a derived part would be there");

/// In a child that does not live long enough to be waited for if it hangs.
ChildResult inBriefChild(const std::function<int()>& body) {
  return inChild([&] {
    ::alarm(120);
    return body();
  });
}

struct Quitter : IQuitHandler {
  explicit Quitter(std::function<void()> action = {}) : act(std::move(action)) {}
  void handleQuit() override {
    if (act) act();
    ++calls;
  }
  bool isCalled(int times) const {
    return test::eventually([this, times] { return calls == times; });
  }

  std::function<void()> act;
  std::atomic<int> calls{0};
};

class KesPalForkTest : public testing::Test {
 protected:
  void SetUp() override {
    KES_SKIP_UNDER_THREAD_SANITIZER("does not follow threads that a fork left behind");
  }
};

TEST_F(KesPalForkTest, LeavingTheScopeInTheChildLeavesTheParentsSignalThreadAlone) {
  const ChildResult child = inBriefChild([] {
    Quitter quitter;
    auto runtime = std::make_unique<KesPal>(true, false, Locale::System, nullptr);
    runtime->addQuitHandler(quitter);
    const ChildResult inner = inBriefChild([&] {
      runtime.reset();
      return KesPal::m_instance == nullptr ? 0 : 1;
    });
    signal::Sender::signalProc(SIGTERM, ::getpid());  // the parent's thread knows nothing of it
    return inner.exitCode() == 0 && quitter.isCalled(1) ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal() << child.err;
}

TEST_F(KesPalForkTest, AStaticRuntimeObjectLetsTheChildExit) {
  const ChildResult child = inBriefChild([]() -> int {
    static const KesPal runtime(true, false, Locale::System, nullptr);
    const ChildResult inner = inBriefChild([]() -> int { std::exit(3); });
    std::exit(inner.exitCode() == 3 ? 4 : 5);
  });
  EXPECT_EQ(child.exitCode(), 4) << "signal " << child.signal() << child.err;
}

TEST_F(KesPalForkTest, TheChildMayMakeARuntimeObjectOfItsOwn) {
  KES_SKIP_UNDER_SANITIZERS("leaves the lock of its allocator to a child as another thread held it");
  const ChildResult child = inBriefChild([] {
    std::optional<KesPal> runtime(std::in_place, true, false, Locale::System, nullptr);
    return inBriefChild([&] {
             Quitter quitter;
             runtime.reset();
             runtime.emplace(true, false, Locale::System, nullptr);
             runtime->addQuitHandler(quitter);
             signal::Sender::signalProc(SIGTERM, ::getpid());
             return quitter.isCalled(1) ? 0 : 1;
           })
        .exitCode();
  });
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal() << child.err;
}

TEST_F(KesPalForkTest, TheChildMayUseTheQuitHandlersAlthoughTheParentsThreadHeldTheLock) {
  const ChildResult child = inBriefChild([] {
    Gate inside, go;
    Quitter busy([&] {
      inside.open();
      go.pass();
    });
    std::optional<KesPal> runtime(std::in_place, true, false, Locale::System, nullptr);
    runtime->addQuitHandler(busy);
    signal::Sender::signalProc(SIGTERM, ::getpid());
    inside.pass();
    const ChildResult inner = inBriefChild([&] {
      Quitter quitter;
      runtime->delQuitHandler(busy);
      runtime->addQuitHandler(quitter);
      runtime->quit();
      runtime->setupQuitHandling();
      signal::Sender::signalProc(SIGTERM, ::getpid());
      const bool called = quitter.isCalled(2);
      runtime.reset();
      return called && busy.calls == 0 ? 0 : 1;
    });
    go.open();
    return inner.exitCode();
  });
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal() << child.err;
}

TEST(ExplicitQuitTest, AQuitHandlerMayWaitForTheThreadThatQuits) {
  KES_SKIP_UNDER_THREAD_SANITIZER("handles every signal itself");
  for (const bool bySignal : {true, false}) {
    const ChildResult child = inBriefChild([bySignal] {
      std::thread quitting;
      Gate asked;
      KesPal runtime(true, false, Locale::System, nullptr);
      Quitter waiter([&] {
        asked.open();
        quitting.join();
      });
      quitting = std::thread([&] {
        asked.pass();
        runtime.explicitQuit(3);
      });
      runtime.setQuitStatus(bySignal);
      runtime.addQuitHandler(waiter);
      signal::Sender::signalProc(SIGTERM, ::getpid());
      for (;;) ::pause();
      return 0;
    });
    EXPECT_EQ(child.signal(), bySignal ? SIGTERM : 0);
    EXPECT_EQ(child.exitCode(), bySignal ? -1 : 3);
  }
}

TEST(ExplicitQuitTest, TheSignalIsNotTakenByTheSignalThreadAgain) {
  KES_SKIP_UNDER_THREAD_SANITIZER("handles every signal itself");
  for (int i = 0; i < 50; ++i) {
    const ChildResult child = inBriefChild([] {
      Quitter quitter;
      KesPal runtime(true, false, Locale::System, nullptr);
      runtime.setQuitStatus(true);
      runtime.addQuitHandler(quitter);
      signal::Sender::signalProc(SIGTERM, ::getpid());
      if (!quitter.isCalled(1)) return 1;
      std::thread([&runtime] { runtime.explicitQuit(3); }).join();
      return 2;
    });
    ASSERT_EQ(child.signal(), SIGTERM) << child.exitCode();
  }
}

TEST(ExplicitQuitTest, WhoQuitsGoesNoFurtherThoughTheSystemHandsTheSignalToAnotherThread) {
  KES_SKIP_UNDER_THREAD_SANITIZER("handles every signal itself");
  const ChildResult child = inBriefChild([]() -> int {
    Quitter quitter;
    KesPal runtime(true, false, Locale::System, nullptr);
    runtime.setQuitStatus(true);
    runtime.addQuitHandler(quitter);
    signal::Sender::signalProc(SIGTERM, ::getpid());
    if (!quitter.isCalled(1)) return 1;
    const test::Refuse onItsWay(test::Call::kill, 0);
    runtime.explicitQuit(3);
    ::_exit(2);
  });
  EXPECT_EQ(child.signal(), SIGTERM) << child.exitCode() << child.err;
}

TEST(ExplicitQuitTest, AHandlerOfTheProgramForTheSignalIsCalledOnce) {
  KES_SKIP_UNDER_THREAD_SANITIZER("handles every signal itself");
  const ChildResult child = inBriefChild([] {
    static volatile std::sig_atomic_t calls = 0;
    Quitter quitter;
    KesPal runtime(true, false, Locale::System, nullptr);
    runtime.setQuitStatus(true);
    runtime.addQuitHandler(quitter);
    signal::Sender::signalProc(SIGTERM, ::getpid());
    if (!quitter.isCalled(1)) return 1;
    ::signal(SIGTERM, [](int) { calls = calls + 1; });
    const bool isSent = runtime.explicitQuit(3);
    const bool isCalled = test::eventually([] { return calls != 0; });
    runtime.setQuitStatus(false);
    return isSent && isCalled && calls == 1 ? 4 : 5;
  });
  EXPECT_EQ(child.exitCode(), 4) << "signal " << child.signal() << child.err;
}

TEST(ExplicitQuitTest, ASignalThatTheProcessWasStartedWithBlockedIsNotTakenForEver) {
  const ChildResult child = inBriefChild([] {
    signal::Mask::call({SIGTERM}, SIG_BLOCK);
    Quitter quitter([] { KesPal::m_instance->explicitQuit(3); });
    KesPal runtime(true, false, Locale::System, nullptr);
    runtime.setQuitStatus(true);
    runtime.addQuitHandler(quitter);
    signal::Sender::signalProc(SIGTERM, ::getpid());
    if (!quitter.isCalled(1)) return 1;
    const bool ended = test::eventually([] { return thread::BasicThread::activeThreads() == 0; });
    return ended && quitter.calls == 1 ? 4 : 5;
  });
  EXPECT_EQ(child.exitCode(), 4) << "signal " << child.signal() << child.err;
}

TEST(ExplicitQuitTest, TheProcessEndsByTheSignalThoughOthersArePendingThatTheLibraryBlocked) {
  KES_SKIP_UNDER_THREAD_SANITIZER("handles every signal itself");
  for (const bool explicitly : {true, false}) {
    const ChildResult child = inBriefChild([explicitly] {
      Quitter quitter;
      KesPal runtime(true, false, Locale::System, nullptr);
      runtime.setQuitStatus(true);
      runtime.addQuitHandler(quitter);
      signal::Sender::signalProc(SIGTERM, ::getpid());
      if (!quitter.isCalled(1)) return 1;
      for (const int signal : {SIGPIPE, SIGUSR1, SIGUSR2}) ::pthread_kill(::pthread_self(), signal);
      signal::Sender::signalProc(SIGUSR2, ::getpid());
      if (explicitly) runtime.explicitQuit(3);
      return 2;
    });
    EXPECT_EQ(child.signal(), SIGTERM) << child.exitCode();
  }
}

}  // namespace
}  // namespace kes
