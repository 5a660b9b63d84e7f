// What a program learns of its quit, and signals that it takes itself beside the runtime object.
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "kespal/kespal.h"
#include "kespal/proc/Child.h"
#include "kespal/signal/Handler.h"
#include "kespal/signal/Mask.h"
#include "kespal/signal/Sender.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/Gate.h"
#include "support/Sanitizer.h"

namespace kes {
namespace {

using test::eventually;
using test::inChild;

struct Quitting : IQuitHandler {
  void handleQuit() override { ++calls; }
  std::atomic<int> calls{0};
};

struct Reloading : signal::Handler::INotify {
  void notify(const int& signal, const siginfo_t&) override { calls += signal == SIGHUP ? 1 : 1000; }
  std::atomic<int> calls{0};
};

/// In a child: who started the tests may have ignored SIGHUP, as nohup does.
void notIgnoringSighup() { ::signal(SIGHUP, SIG_DFL); }

void send(int signal) { signal::Sender::signalProc(signal, ::getpid()); }

TEST(QuitRequestTest, NobodyHasAskedAtFirst) {
  const auto child = inChild([] {
    const KesPal runtime(true, false, Locale::System, nullptr);
    return !runtime.quitRequested() && runtime.receivedSignal() == 0 ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.err;
}

TEST(QuitRequestTest, TheSignalThatAskedIsKnownFromTheFirstQuitHandlerOn) {
  struct Asking : IQuitHandler {
    explicit Asking(const KesPal& object) : runtime(object) {}
    void handleQuit() override { seen = runtime.quitRequested() ? runtime.receivedSignal() : -1; }
    const KesPal& runtime;
    std::atomic<int> seen{0};
  };
  for (const int signal : {SIGINT, SIGTERM}) {
    const auto child = inChild([signal] {
      KesPal runtime(true, false, Locale::System, nullptr);
      Asking asking(runtime);
      runtime.addQuitHandler(asking);
      send(signal);
      const bool isTold = eventually([&] { return asking.seen != 0; });
      runtime.delQuitHandler(asking);
      return isTold && asking.seen == signal && runtime.receivedSignal() == signal ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode(), 0) << child.err;
  }
}

TEST(QuitRequestTest, AQuitOfTheProgramsOwnIsOneWithoutASignal) {
  const auto child = inChild([] {
    KesPal runtime(true, false, Locale::System, nullptr);
    runtime.quit();
    return runtime.quitRequested() && runtime.receivedSignal() == 0 ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.err;
}

TEST(QuitRequestTest, AQuitThatWasAskedForBeforeTheFirstHandlerCameIsKnownAfterwards) {
  const auto child = inChild([] {
    KesPal runtime(true, false, Locale::System, nullptr);
    send(SIGTERM);
    if (!eventually([&] { return runtime.quitRequested(); })) return 1;
    Quitting quitting;
    runtime.addQuitHandler(quitting);
    const bool isKnown = runtime.quitRequested() && runtime.receivedSignal() == SIGTERM;
    runtime.delQuitHandler(quitting);
    return isKnown && quitting.calls == 0 ? 0 : 2;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.err;
}

TEST(QuitRequestTest, WhoRegistersAndThenAsksMissesNoQuit) {
  const auto child = inChild([] {
    for (int round = 0; round < 200; ++round) {
      KesPal runtime(false, false, Locale::System, nullptr);
      Quitting quitting;
      test::Gate start;
      std::thread asking([&] {
        start.pass();
        runtime.quit();
      });
      start.open();
      if (round % 2 == 0) std::this_thread::yield();
      runtime.addQuitHandler(quitting);
      const bool isKnown = runtime.quitRequested();
      asking.join();
      runtime.delQuitHandler(quitting);
      if (!isKnown && quitting.calls == 0) return 1;
    }
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.err;
}

TEST(OwnSignalTest, WhatTheProgramBlocksAfterTheConstructionEndsItByNoThreadOfTheLibrary) {
  const auto child = inChild([] {
    notIgnoringSighup();
    const KesPal runtime(true, false, Locale::System, nullptr);
    signal::Mask::call({SIGHUP, SIGALRM}, SIG_BLOCK);
    for (const int signal : {SIGHUP, SIGALRM}) send(signal);
    ::sigset_t pending;
    sigemptyset(&pending);
    ::sigpending(&pending);
    const signal::Set waiting(pending);
    return waiting.contains(SIGHUP) && waiting.contains(SIGALRM) ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal() << child.err;
}

TEST(OwnSignalTest, AHandlerOfTheProgramTakesSighupBesideTheRuntimeObjectsOwn) {
  KES_SKIP_UNDER_THREAD_SANITIZER("handles every signal itself");
  const auto child = inChild([] {
    KesPal runtime(true, false, Locale::System, nullptr);
    runtime.setQuitStatus(true);
    signal::Mask::call({SIGHUP}, SIG_BLOCK);
    Quitting quitting;
    runtime.addQuitHandler(quitting);
    Reloading reloading;
    signal::Handler reload;
    reload.add(SIGHUP, reloading);
    reload.start(SIGUSR2);
    for (int times = 1; times <= 100; ++times) {
      send(SIGHUP);
      if (!eventually([&] { return reloading.calls == times; })) return 1;
    }
    send(SIGTERM);
    if (!eventually([&] { return quitting.calls == 1; })) return 2;
    reload.stop();
    runtime.delQuitHandler(quitting);
    return reloading.calls == 100 && runtime.receivedSignal() == SIGTERM ? 0 : 3;
  });
  EXPECT_EQ(child.signal(), SIGTERM) << child.exitCode() << child.err;
}

TEST(OwnSignalTest, SeveralHandlersStartAndStopBesideTheRuntimeObject) {
  const auto child = inChild([] {
    notIgnoringSighup();
    const KesPal runtime(true, false, Locale::System, nullptr);
    signal::Mask::call({SIGHUP}, SIG_BLOCK);
    for (int round = 1; round <= 20; ++round) {
      Reloading reloading;
      signal::Handler reload;
      reload.add(SIGHUP, reloading);
      send(SIGHUP);  // also before it is started
      reload.start(SIGUSR2);
      if (!eventually([&] { return reloading.calls == 1; })) return round;
    }
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal() << child.err;
}

TEST(OwnSignalTest, ProgramsThatAreStartedMeanwhileAreEndedByThatSignalAsEver) {
  const auto child = inChild([] {
    notIgnoringSighup();
    const KesPal runtime(true, false, Locale::System, nullptr);
    signal::Mask::call({SIGHUP}, SIG_BLOCK);
    proc::Child shell({"/bin/sh", "-c", "kill -HUP $$; echo lives on"});
    shell.create(/*inPlace=*/false);
    shell.wait();
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.err;
  EXPECT_EQ(child.out, "");
}

}  // namespace
}  // namespace kes
