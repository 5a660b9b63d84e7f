#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <optional>

#include "kespal/error/OsError.h"
#include "kespal/kespal.h"
#include "kespal/proc/Child.h"
#include "kespal/signal/Handler.h"
#include "kespal/signal/Mask.h"
#include "kespal/signal/Sender.h"
#include "kespal/thread/Thread.h"
#include "support/Eventually.h"
#include "support/EveryFailure.h"
#include "sys/NoCancel.h"

namespace kes {
namespace {

using test::Call;
using test::expectSurvival;
using test::raises;
using test::Stage;

const std::vector<test::Raises> runtimeErrors = {
    raises("kes::OsError"),         raises("kes::FsError"),       raises("kes::FileAccessError"),
    raises("kes::NoSuchFileError"), raises("kes::FileBusyError"), raises("kes::NoSuchProcessError")};

/// A runtime object leaves its signals blocked; the play takes that back.
class Masking {
 public:
  ~Masking() {
    for (const auto handler : {SIG_IGN, SIG_DFL})
      ::signal(SIGTERM, handler);  // one that nobody took ends nothing
    signal::Mask::call(before, SIG_SETMASK);
  }

  bool isUnchanged() const {
    for (const int signal : {SIGPIPE, SIGUSR1, SIGUSR2, SIGINT, SIGTERM}) {
      if (signal::Mask::get().contains(signal) != before.contains(signal)) return false;
    }
    return true;
  }
  const signal::Set before = signal::Mask::get();
};

struct Quitting : IQuitHandler {
  void handleQuit() override { ++quits; }
  std::atomic<int> quits{0};
};

struct AfterFork : IForkHandler {
  void afterFork() override { ++calls; }
  int calls = 0;
};

struct Counting : thread::CppThread::IThread {
  void thread(thread::CppThread&) override { ++runs; }
  std::atomic<int> runs{0};
};

/// What a process does that was forked while another thread made a runtime object.
void useTheLibrary(Stage& stage) {
  Counting body;
  thread::CppThread thread("in the child", &body);
  thread.run();
  thread.join();
  stage.check(body.runs == 1, "it has threads");
  proc::Child child({"/bin/sh", "-c", "exit 3"});
  child.create();
  stage.check(WEXITSTATUS(child.wait().status) == 3, "it has children");
  proc::Child::exit();
  signal::Handler handler;
  handler.start(SIGUSR2);
  handler.stop();
  stage.check(std::string(OsError(ENOENT).what()).find("No such file") != std::string::npos, "it has errors");
}

TEST(EveryFailureOfTheRuntime, ARuntimeObjectIsMade) {
  expectSurvival(
      {.operations = {"kes::KesPal::KesPal", "kes::KesPal::~KesPal", "kes::KesPalInit::init",
                      "kes::KesPalInit::setupQuitHandling", "kes::KesPalInit::setupTerminateHandling",
                      "kes::KesPalInit::setSigmask"},
       .raises = runtimeErrors,
       .play =
           [](Stage& stage) {
             const Masking masking;
             std::optional<KesPal> runtime;
             stage.act([&] { runtime.emplace(true, false, Locale::System); });
             if (!runtime) {
               stage.check(masking.isUnchanged() || stage.isRefused(Call::pthread_sigmask),
                           "the mask is the one from before");

               stage.check(KesPal::m_instance == nullptr, "there is no runtime object");
               runtime.emplace(true, false, Locale::System);
             }
             Quitting quitting;
             runtime->addQuitHandler(quitting);
             signal::Sender::signalProc(SIGTERM, ::getpid());
             stage.check(test::eventually([&] { return quitting.quits == 1; }), "it works afterwards");
             runtime->delQuitHandler(quitting);
           },
       .misused = {Call::pthread_sigmask, Call::clock_gettime, Call::sigaction},
       // No runtime object of its own: the lock of the C library's locale is not made anew in a forked child.
       .playForked = useTheLibrary});
}

TEST(EveryFailureOfTheRuntime, QuitHandlersAreToldOfASignal) {
  expectSurvival({.operations = {"kes::KesPal::addQuitHandler", "kes::KesPal::delQuitHandler",
                                 "kes::KesPal::quit", "kes::QuitSignal::notify", "kes::QuitSignal::notifying",
                                 "kes::KesPalInit::checkSignalQuit", "kes::KesPalInit::explicitQuit"},
                  .raises = runtimeErrors,
                  .play = [](Stage& stage) {
                    const Masking masking;
                    KesPal runtime(true, false, Locale::System);
                    Quitting first, second;
                    stage.act([&] { runtime.addQuitHandler(first); });
                    const int expected = stage.succeeded() ? 1 : 0;
                    stage.act([&] {
                      runtime.addQuitHandler(second);
                      runtime.delQuitHandler(second);
                    });
                    stage.act([&] {
                      if (expected != 0) signal::Sender::signalProc(SIGTERM, ::getpid());
                      return test::eventually([&] { return first.quits == expected; });
                    });
                    runtime.delQuitHandler(second);
                    const int before = second.quits;
                    stage.act([&] { runtime.quit(); });
                    stage.check(second.quits == before, "who is deleted is not told");
                    stage.act([&] { runtime.checkSignalQuit(); });
                    runtime.delQuitHandler(first);
                  }});
}

TEST(EveryFailureOfTheRuntime, AForkThatWasPendingIsDone) {
  expectSurvival({.operations = {"kes::KesPalInit::forkDone", "kes::KesPalInit::addForkHandler"},
                  .raises = runtimeErrors,
                  .play = [](Stage& stage) {
                    const Masking masking;
                    KesPal runtime(true, true, Locale::System);
                    AfterFork first, second;
                    stage.act([&] { runtime.addForkHandler(first); });
                    const int added = stage.succeeded() ? 1 : 0;
                    if (!stage.act([&] { runtime.forkDone(); })) {
                      stage.check(runtime.forkPending(), "the fork is still pending");
                      runtime.forkDone();
                    }
                    stage.check(first.calls == added, "each handler was called once");
                    runtime.addForkHandler(second);
                    runtime.forkDone();
                    stage.check(second.calls == 0, "a fork is done once");
                  }});
}

/// How a child ends that does this.
int endOf(void (*last)()) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    try {
      last();
    } catch (...) {  // of what the end needs
    }
    ::_exit(99);
  }

  const sys::NoCancel untilReaped;
  int status = 0;
  while (pid != -1 && ::waitpid(pid, &status, 0) == -1 && errno == EINTR) {
  }
  return status;
}

TEST(EveryFailureOfTheRuntime, AProgramIsEndedByWhatNobodyCatches) {
  expectSurvival({.operations = {"kes::kespal_terminate", "kes::exceptionActive"},
                  .play =
                      [](Stage& stage) {
                        int status = 0;
                        const auto end = [] {
                          try {
                            throw std::runtime_error("nobody catches this");
                          } catch (...) {
                            kespal_terminate();
                          }
                        };
                        stage.act([&] {
                          status = endOf(end);
                          return true;
                        });
                        const bool aborted = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
                        stage.check(aborted || stage.isRefused(Call::fork), "it is ended by SIGABRT");
                      },
                  .spared = {Call::waitpid}});  // the play's own
}

TEST(EveryFailureOfTheRuntime, AProgramIsEndedByTheSignalThatItWasAskedToQuitBy) {
  expectSurvival({.operations = {"kes::KesPalInit::explicitQuit", "kes::KesPalInit::checkSignalQuit"},
                  .play =
                      [](Stage& stage) {
                        int status = 0;
                        const auto end = [] {
                          KesPal runtime(true, false, Locale::System);
                          runtime.setQuitStatus(true);
                          struct Ending : IQuitHandler {
                            explicit Ending(KesPal& object) : runtime(object) {}
                            void handleQuit() override { runtime.explicitQuit(3); }
                            KesPal& runtime;
                          } ending(runtime);
                          runtime.addQuitHandler(ending);
                          ::kill(::getpid(), SIGTERM);
                          for (int i = 0; i < 50; ++i) ::usleep(10'000);
                        };
                        stage.act([&] {
                          status = endOf(end);
                          return true;
                        });
                        stage.check(!WIFEXITED(status) || WEXITSTATUS(status) != 3, "not by its own status");
                      },
                  .spared = {Call::waitpid},  // the play's own
                  // The lock of the C library's locale is not made anew in a forked child: one that another
                  // thread held at that moment, to look up a text, keeps setlocale() waiting there.
                  .isForkedBeside = false});
}

}  // namespace
}  // namespace kes
