#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <optional>
#include <sstream>

#include "kespal/proc/Child.h"
#include "kespal/proc/ExitStatus.h"
#include "kespal/proc/Output.h"
#include "kespal/proc/Shepherd.h"
#include "kespal/time/Clock.h"
#include "support/Eventually.h"
#include "support/EveryFailure.h"
#include "support/TempDir.h"
#include "sys/AtEnd.h"
#include "sys/NoCancel.h"
#include "sys/Owner.h"

namespace kes::proc {
namespace {

using test::Call;
using test::expectSurvival;
using test::raises;
using test::Stage;

using Texts = std::list<std::string>;

const std::vector<test::Raises> childErrors = {raises("kes::OsError", {EAGAIN, ENOMEM}),
                                               raises("kes::RuntimeError"), raises("kes::NoSuchProcessError"),
                                               raises("kes::UsageError", {}, "wait")};

/// The collector ends with the play, and is a new one in each. Children that nobody waited for go, too.
struct Collecting {
  Collecting() { time::ClockBase::init(); }
  ~Collecting() {
    const sys::NoCancel untilGone;
    Child::exit();
    while (::waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
  }
};

void killIfThere(Child& child) {
  const sys::NoCancel untilKilled;

  try {
    child.kill();
  } catch (const NoSuchProcessError&) {
  }
}

bool endedWith(const Child::ExitState& state, int code) {
  return state.finished && WIFEXITED(state.status) && WEXITSTATUS(state.status) == code;
}

void expectService(Stage& stage) {
  Child next({"/bin/true"});
  next.create();
  stage.check(endedWith(next.wait(), 0), "children can be started and waited for afterwards");
}

TEST(EveryFailureOfChildren, AChildIsStartedAndWaitedFor) {
  expectSurvival(
      {.operations = {"kes::proc::Child::create", "kes::proc::Child::wait", "kes::proc::Child::~Child",
                      "kes::proc::Child::collector", "kes::proc::start"},
       .raises = childErrors,
       .play = [](Stage& stage) {
         const Collecting collecting;
         Child child({"/bin/true"});
         const bool made = stage.act([&] { child.create(); });
         stage.check(made == (child.pid() != -1), "there is a child if that was said");
         Child::ExitState state{0, false};
         if (made && stage.act([&] { state = child.wait(); })) {
           stage.check(endedWith(state, 0) || endedWith(state, 125), "it ended as it should");
         }
         expectService(stage);
       }});
}

TEST(EveryFailureOfChildren, AChildThatTheSystemDoesNotTellOfIsNotWaitedForLongerThanSaid) {
  expectSurvival({.operations = {"kes::proc::Child::wait"},
                  .raises = childErrors,
                  .play =
                      [](Stage& stage) {
                        const Collecting collecting;
                        Child child({"/bin/true"});
                        stage.act([&] { child.create(); });
                        if (stage.succeeded()) stage.act([&] { child.wait(true, time::Milliseconds(100)); });
                        expectService(stage);
                        if (child.pid() != -1) child.wait();
                      },
                  .misused = {Call::pthread_cond_timedwait, Call::clock_gettime}});
}

TEST(EveryFailureOfChildren, AProcessEntersAGroupOfItsOwn) {
  expectSurvival({.operations = {"kes::proc::enterNewProcessGroup"},
                  .play = [](Stage& stage) { stage.act([] { enterNewProcessGroup(); }); }});
}

TEST(EveryFailureOfChildren, AChildGetsItsSurroundings) {
  expectSurvival({.operations = {"kes::proc::Child::create", "kes::proc::enterNewProcessGroup"},
                  .raises = childErrors,
                  .play = [](Stage& stage) {
                    const Collecting collecting;
                    const std::string place = stage / "out";
                    const sys::Descriptor out(::open(place.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));

                    std::optional<Child> child;
                    stage.act([&] {
                      child.emplace(Texts{"sh", "-c", "echo $word; pwd"});
                      child->setEnvironment({"word=yes", "PATH=/usr/bin:/bin"});
                      child->setWorkingDirectory("/");
                      child->setStdout(out.get());
                      child->setNewProcessGroup(true);
                    });
                    if (!stage.succeeded()) return;
                    if (!stage.act([&] { child->create(); })) return;
                    Child::ExitState state{0, false};
                    stage.act([&] { state = child->wait(); });
                    // What is wrong with its streams a child says and goes on.
                    if (endedWith(state, 0) && !stage.isRefused(Call::dup2)) {
                      stage.check(test::readFile(place) == "yes\n/\n", "it ran as it should");
                    } else {
                      stage.check(!stage.succeeded() || endedWith(state, 125) || endedWith(state, 0),
                                  "it ended as it should");
                    }
                  }});
}

TEST(EveryFailureOfChildren, AProgramTakesThePlaceOfAProcess) {
  expectSurvival(
      {.operations = {"kes::proc::Child::create"}, .raises = childErrors, .play = [](Stage& stage) {
         const Collecting collecting;
         int status = 0;
         const bool forked = stage.act([&] {
           const pid_t pid = ::fork();
           if (pid == 0) {
             try {
               Child(Texts{"/bin/sh", "-c", "exit 3"}).create(/*inPlace=*/true);
             } catch (...) {
             }
             ::_exit(125);
           }
           return pid != -1 && ::waitpid(pid, &status, 0) == pid;
         });
         if (forked) {
           stage.check(WIFEXITED(status) && (WEXITSTATUS(status) == 3 || WEXITSTATUS(status) == 125),
                       "it became the program or said that it could not");
         }
       }});
}

struct Told : Child::Notification {
  void exited(Child&) override { ++ends; }
  void released(Child&) override { ++releases; }
  std::atomic<int> ends{0}, releases{0};
};

TEST(EveryFailureOfChildren, AnEndIsNotified) {
  expectSurvival(
      {.operations = {"kes::proc::Child::setNotify", "kes::proc::Child::exited", "kes::proc::Child::released",
                      "kes::proc::Child::Notification::released"},
       .raises = childErrors,
       .play =
           [](Stage& stage) {
             const Collecting collecting;
             Told told;
             Child child({"/bin/true"}), sleeper({"/bin/sleep", "100"});
             pid_t pid = -1;  // a collector that is told of no child takes those that run for lost
             const sys::AtEnd ending([&] {
               if (sleeper.pid() != -1) pid = sleeper.pid();
               if (pid != -1) ::kill(pid, SIGKILL);
             });

             stage.act([&] {
               child.setNotify(&told);
               sleeper.setNotify(&told);
             });
             const bool made = stage.act([&] { child.create(); });
             const bool waited = made && stage.act([&] { child.wait(); });
             stage.check(!waited || test::eventually([&] { return told.ends == 1; }), "the end is told");
             stage.check(told.releases == 0 || stage.isRefused(Call::waitid), "nobody else has seen it");
             const bool sleeps = stage.act([&] { sleeper.create(); });
             pid = sleeper.pid();
             if (sleeps) stage.act([] { Child::exit(); });
             if (!sleeps || !stage.succeeded()) Child::exit();
             const int tolds =
                 told.ends + told.releases;  // nobody is told of a child that was not waited for
             stage.check(waited + sleeps <= tolds && tolds <= made + sleeps,
                         "so is that nobody will see one");
           },
       .spared = {Call::fork}});  // without a process the next child's end is awaited
}

TEST(EveryFailureOfChildren, AChildIsSignalled) {
  expectSurvival({.operations = {"kes::proc::Child::kill", "kes::proc::Child::term"},
                  .raises = childErrors,
                  .play = [](Stage& stage) {
                    const Collecting collecting;
                    Child child({"/bin/sleep", "100"});
                    child.create();
                    const sys::AtEnd ending([&] { killIfThere(child); });
                    stage.act([&] { child.term(SIGCONT); });
                    stage.act([&] { child.kill(0); });
                    stage.act([&] { child.kill(); });
                    if (!stage.succeeded()) child.kill();
                    const Child::ExitState state = child.wait();
                    stage.check(WIFSIGNALED(state.status), "it was ended by the signal");
                  }});
}

TEST(EveryFailureOfChildren, AChildIsTerminated) {
  expectSurvival(
      {.operations = {"kes::proc::Child::terminate", "kes::proc::Child::waitFor",
                      "kes::proc::Flock::terminate", "kes::proc::Flock::waitFor"},
       .raises = childErrors,
       .play = [](Stage& stage) {
         const Collecting collecting;
         Child child({"/bin/sleep", "100"});
         child.create();
         const sys::AtEnd ending([pid = child.pid()] { ::kill(pid, SIGKILL); });
         Child::ExitState state{0, false};
         stage.act([&] { state = child.waitFor(time::Milliseconds(1)); });
         stage.check(!state.finished, "it was not ended by that");
         if (!stage.succeeded()) return;
         ExitStatus status{0};
         if (stage.act([&] { status = child.terminate(std::chrono::seconds(100)); })) {
           stage.check(status.signal() == SIGTERM && child.pid() == -1, "it was ended by the signal");
         } else if (child.pid() != -1) {
           stage.check(child.terminate(time::Milliseconds(0)).signal().has_value(), "it can be tried again");
         }
         expectService(stage);
       }});
}

/// Only children that were registered are reaped, until the end of the play.
struct RegisteredOnly {
  RegisteredOnly() { Child::setReaping(Reaping::Registered); }
  ~RegisteredOnly() {
    const sys::NoCancel untilChanged;
    Child::exit();
    Child::setReaping(Reaping::EveryChild);
  }
};

TEST(EveryFailureOfChildren, AChildIsStartedAndTerminatedBesideThoseOfOthers) {
  expectSurvival({.operations = {"kes::proc::Child::setReaping", "kes::proc::Child::create",
                                 "kes::proc::Child::terminate", "kes::proc::Child::exit",
                                 "kes::proc::Shepherd::Shepherd"},
                  .raises = childErrors,
                  .play = [](Stage& stage) {
                    const Collecting collecting;
                    const RegisteredOnly registeredOnly;
                    Child child({"/bin/sleep", "100"});
                    pid_t pid = -1;
                    const sys::AtEnd ending([&] {
                      if (child.pid() != -1) pid = child.pid();
                      if (pid != -1) ::kill(pid, SIGKILL);
                    });
                    const bool made = stage.act([&] { child.create(); });
                    pid = child.pid();
                    stage.check(made == (pid != -1), "there is a child if that was said");
                    if (made) stage.act([&] { child.terminate(time::Milliseconds(0)); });
                    const pid_t stranger = ::fork();
                    if (stranger == 0) ::_exit(3);
                    expectService(stage);
                    int status = 0;
                    stage.check(::waitpid(stranger, &status, 0) == stranger && status == 3 << 8,
                                "a child that was not registered is left alone");
                  }});
}

TEST(EveryFailureOfChildren, AProgramIsRunForItsOutput) {
  expectSurvival(
      {.operations = {"kes::proc::captureOutput"}, .raises = childErrors, .play = [](Stage& stage) {
         const Collecting collecting;
         Child child({"/bin/sh", "-c", "cat; echo err >&2"});
         // A pipe for which the system never has room, or a byte, has no other end.
         const OutputOptions options{.input = "in\n", .limit = std::chrono::seconds(2)};
         Output output;
         const bool captured = stage.act([&] { output = captureOutput(child, options); });
         stage.check(child.pid() == -1 || stage.isRefused(Call::kill), "no program is left");
         // One that does not read its input has nothing of it to write.
         const bool isHindered = stage.isRefused(Call::dup2) || stage.isRefused(Call::write, EPIPE);
         if (captured && output.status.isSuccess() && !output.timedOut && !isHindered) {
           stage.check(output.out == "in\n" && output.err == "err\n", "all that it wrote is there");
         }
         killIfThere(child);
         expectService(stage);
       }});
}

TEST(EveryFailureOfChildren, AProgramThatTakesTooLongIsEndedWithItsOutput) {
  expectSurvival({.operations = {"kes::proc::captureOutput"},
                  .raises = childErrors,
                  .play =
                      [](Stage& stage) {
                        const Collecting collecting;
                        Child child({"/bin/sleep", "100"});
                        const OutputOptions options{.limit = time::Milliseconds(10),
                                                    .grace = time::Milliseconds(500)};
                        Output output;
                        const bool captured = stage.act([&] { output = captureOutput(child, options); });
                        stage.check(child.pid() == -1 || stage.isRefused(Call::kill), "no program is left");
                        stage.check(!captured || output.timedOut || output.status.exitCode() == 125,
                                    "that it was ended is said");
                        killIfThere(child);
                        expectService(stage);
                      },
                  // A collector that is told of no child takes those that run for lost, and nobody ends them.
                  .spared = {Call::waitid}});
}

TEST(EveryFailureOfChildren, TheCollectorIsMadeAndEnded) {
  expectSurvival({.operations = {"kes::proc::Child::init", "kes::proc::Child::exit",
                                 "kes::proc::Shepherd::Shepherd", "kes::proc::Shepherd::~Shepherd"},
                  .raises = childErrors,
                  .play =
                      [](Stage& stage) {
                        const Collecting collecting;
                        stage.act([] { Child::init(); });
                        Child sleeper({"/bin/sleep", "100"});
                        const sys::AtEnd ending([&] { killIfThere(sleeper); });
                        stage.act([&] { sleeper.create(); });
                        stage.act([] { Child::exit(); });
                        stage.check(Child::m_shepherd == nullptr, "there is none any more");
                        expectService(stage);
                      },
                  .spared = {Call::fork}});  // without a process the next child's end is awaited
}

/// What a failed start says stays out of the test's report.
struct Quiet {
  const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  explicit Quiet(Child& child) { child.setStderr(null); }
  ~Quiet() { ::close(null); }
};

TEST(EveryFailureOfChildren, AProgramThatCannotBeStartedIsTold) {
  expectSurvival({.operations = {"kes::proc::Child::startFailure", "kes::proc::Child::create",
                                 "kes::proc::StartFailure::text"},
                  .raises = childErrors,
                  .play = [](Stage& stage) {
                    const Collecting collecting;
                    Child child({"/no/such/program"});
                    const Quiet quiet(child);
                    const bool made = stage.act([&] { child.create(); });
                    stage.check(made || !child.startFailure(), "without a child there is nothing to tell");
                    if (!made) return expectService(stage);
                    Child::ExitState state{0, false};
                    if (!stage.act([&] { state = child.wait(); })) return expectService(stage);
                    stage.check(endedWith(state, 125), "how it ends");
                    const auto failure = child.startFailure();
                    stage.check(failure && failure->isFatal(), "why is told");
                    std::string text;
                    stage.act([&] { text = failure->text(); });
                    stage.check(stage.succeeded() == !text.empty(), "in words");
                    expectService(stage);
                  }});
}

TEST(EveryFailureOfChildren, AProgramOfAnotherUserIsStarted) {
  expectSurvival({.operations = {"kes::proc::Child::setUser", "kes::proc::Child::create",
                                 "kes::proc::Child::startFailure"},
                  .raises = childErrors,
                  .play = [](Stage& stage) {
                    const Collecting collecting;
                    UserInfo stranger;
                    stranger.uid = stranger.gid = 64444;
                    Child child({"true"});
                    const Quiet quiet(child);
                    child.setEnvironment({"PATH=/bin"});
                    child.setSearchOwnPath(true);
                    child.setWorkingDirectory("/");
                    if (!stage.act([&] { child.setUser(stranger, {4, 27}); })) return expectService(stage);
                    if (stage.act([&] { child.create(); })) {
                      Child::ExitState state{0, false};
                      if (!stage.act([&] { state = child.wait(); })) return expectService(stage);
                      const auto failure = child.startFailure();
                      stage.check(endedWith(state, failure && failure->isFatal() ? 125 : 0),
                                  "it runs, or says why it does not");
                    }
                    expectService(stage);
                  }});
}

TEST(EveryFailureOfChildren, TheWordsForAnEndAreMade) {
  expectSurvival({.operations = {"kes::proc::ExitStatus::exitCode", "kes::proc::ExitStatus::signal",
                                 "kes::proc::ExitStatus::coreDumped", "kes::proc::ExitStatus::text"},
                  .play = [](Stage& stage) {
                    std::string exited, killed;
                    stage.act([&] { exited = ExitStatus(3 << 8).text(); });
                    stage.check(!stage.succeeded() || exited == "exited 3", "of an exit");
                    stage.act([&] { killed = ExitStatus(SIGSEGV | WCOREFLAG).text(); });
                    stage.check(!stage.succeeded() || killed == "killed by SIGSEGV, core dumped",
                                "of a signal");
                  }});
}

pid_t childOfOurOwn(Shepherd& shepherd) {
  const Shepherd::Guard guard(shepherd.condition());
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(7);
  if (pid != -1) shepherd.addNoLock(pid, nullptr);
  return pid;
}

TEST(EveryFailureOfChildren, ACollectorOfOnesOwnCollects) {
  expectSurvival(
      {.operations = {"kes::proc::Shepherd::start", "kes::proc::Shepherd::stop",
                      "kes::proc::Shepherd::addNoLock", "kes::proc::Shepherd::wait",
                      "kes::proc::Shepherd::condition", "kes::proc::Shepherd::thread",
                      "kes::proc::Shepherd::checkCB", "kes::proc::Flock::start", "kes::proc::Flock::stop",
                      "kes::proc::Flock::addNoLock", "kes::proc::Flock::wait", "kes::proc::Flock::checkCB"},
       .raises = {raises("kes::OsError"), raises("kes::RuntimeError")},
       .play =
           [](Stage& stage) {
             const Collecting collecting;
             std::optional<Shepherd> shepherd;
             stage.act([&] { shepherd.emplace(); });
             if (!shepherd) shepherd.emplace();
             stage.act([&] { shepherd->start(); });
             if (!stage.succeeded()) shepherd->start();
             pid_t pid = -1;
             stage.act([&] {
               pid = childOfOurOwn(*shepherd);
               return pid != -1;
             });
             int status = 0;
             if (stage.succeeded()) {
               stage.act([&] { return shepherd->wait(pid, status); });
               stage.check(!stage.succeeded() || WEXITSTATUS(status) == 7, "its status is known");
             }
             stage.act([&] { shepherd->stop(); });
             shepherd->stop();
             shepherd->start();
             pid = childOfOurOwn(*shepherd);
             stage.check(shepherd->wait(pid, status) && WEXITSTATUS(status) == 7,
                         "it can be used afterwards");
           },
       // Who waits for a number, and not for a child, waits for whoever gets it next.
       .spared = {Call::waitid}});
}

}  // namespace
}  // namespace kes::proc
