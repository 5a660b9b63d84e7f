#include <atomic>
#include <optional>

#include "kespal/thread/Thread.h"
#include "support/EveryFailure.h"
#include "sys/AtEnd.h"
#include "sys/NoCancel.h"

namespace kes::thread {
namespace {

using test::Call;
using test::expectSurvival;
using test::raises;
using test::Stage;

const std::vector<test::Raises> threadErrors = {raises("kes::OsError"), raises("kes::UsageError"),
                                                raises("kes::RuntimeError")};

/// What a thread's life stands on. A lock or waking that is refused in a destructor, or as a native thread's
/// last step, ends the program.
const std::vector<Call> lockCalls = {Call::pthread_mutex_lock, Call::pthread_cond_broadcast,
                                     Call::pthread_cond_wait};
std::vector<Call> lockCallsAnd(std::vector<Call> others) {
  others.insert(others.end(), lockCalls.begin(), lockCalls.end());
  return others;
}

/// Counts the times that it was run.
struct Counting : CppThread::IThread {
  void thread(CppThread&) override { ++runs; }
  std::atomic<int> runs{0};
};

/// Pauses where it is asked to, until it is to return.
struct Pausing : CoopThread::ICoopThread {
  void thread(CoopThread& self) override {
    while (self.request() != CoopThread::Return) self.pause();
    ++returns;
  }
  std::atomic<int> returns{0};
};

struct Sleeping : CoopThread::ICoopThread {
  void thread(CoopThread& self) override {
    time::RealtimeClock soon;
    soon += time::Milliseconds(1);
    self.sleep(soon);
  }
};

/// The body ends before the play, also when that is cancelled.
void end(CoopThread& thread) {
  const sys::NoCancel untilJoined;
  thread.requestReturn();
  thread.join();
}

TEST(EveryFailureOfThreads, AThreadWithAnObjectForItsBodyRunsAgainAndAgain) {
  expectSurvival({.operations = {"kes::thread::CppThread::CppThread", "kes::thread::CppThread::~CppThread",
                                 "kes::thread::BasicThread::run", "kes::thread::BasicThread::join",
                                 "kes::thread::BasicThread::prepareJoin", "kes::thread::BasicThread::create",
                                 "kes::thread::BasicThread::state", "kes::thread::BasicThread::id",
                                 "kes::thread::BasicThread::waitStartOver"},
                  .raises = threadErrors,
                  .play =
                      [](Stage& stage) {
                        Counting body;
                        std::optional<CppThread> thread;
                        stage.act([&] { thread.emplace("counting", &body); });
                        if (!thread) thread.emplace("counting", &body);
                        stage.act([&] { thread->run(); });
                        stage.act([&] { (void)thread->state(); });
                        if (thread->state() > BasicThread::CREATED &&
                            thread->state() != BasicThread::BURIED) {
                          stage.act([&] { thread->waitStartOver(); });
                          stage.act([&] { (void)thread->id(); });
                        }
                        stage.act([&] { thread->join(); });
                        thread->join();
                        const int before = body.runs;
                        stage.act([&] { thread->create(); });
                        stage.act([&] { thread->prepareJoin(); });
                        thread->join();
                        stage.check(body.runs == before, "a held thread leaves without running");
                        thread->run();
                        thread->join();
                        stage.check(body.runs == before + 1, "it can be used afterwards");
                      },
                  .misused = lockCalls,
                  .mayEnd = lockCalls});
}

TEST(EveryFailureOfThreads, AThreadIsKilled) {
  expectSurvival({.operations = {"kes::thread::BasicThread::kill"},
                  .raises = threadErrors,
                  .play =
                      [](Stage& stage) {
                        Pausing body;
                        CoopThread thread("pausing", &body);
                        const sys::AtEnd ending([&] { end(thread); });
                        thread.requestPause();
                        stage.act([&] { thread.run(); });
                        stage.act([&] { thread.kill(); });
                        thread.kill();
                        stage.check(thread.state() == BasicThread::BURIED, "it is gone");
                        Counting counting;
                        CppThread next("counting", &counting);
                        next.run();
                        next.join();
                        stage.check(counting.runs == 1, "others can be used afterwards");
                      },
                  .misused = lockCallsAnd({Call::pthread_cancel}),
                  .mayEnd = lockCalls});
}

TEST(EveryFailureOfThreads, ADetachedThreadRuns) {
  expectSurvival({.operations = {"kes::thread::BasicThread::BasicThread"},
                  .raises = threadErrors,
                  .play =
                      [](Stage& stage) {
                        static std::atomic<int> runs;
                        runs = 0;
                        std::optional<BasicThread> thread;
                        stage.act([&] {
                          thread.emplace([](void*) { ++runs; }, "detached", nullptr, /*detached=*/true,
                                         1U << 20);
                        });
                        if (!thread) return;
                        if (stage.act([&] { thread->run(); })) {
                          // One that could not begin has said so, and ended.
                          while (runs == 0 && thread->state() != BasicThread::FINISHED) BasicThread::yield();
                        }
                        thread.reset();
                      },
                  // Not the waking: who cannot tell that it has begun ends, and looks as if it ran for ever.
                  .misused = {Call::pthread_mutex_lock, Call::pthread_cond_wait},
                  .mayEnd = lockCalls});
}

TEST(EveryFailureOfThreads, ACooperativeThreadPausesRunsOnAndReturns) {
  expectSurvival(
      {.operations = {"kes::thread::CoopThread::CoopThread", "kes::thread::CoopThread::~CoopThread",
                      "kes::thread::CoopThread::requestPause", "kes::thread::CoopThread::requestRun",
                      "kes::thread::CoopThread::requestReturn", "kes::thread::CoopThread::pause",
                      "kes::thread::CoopThread::waitPaused", "kes::thread::CoopThread::waitRunning",
                      "kes::thread::CoopThread::waitReturned", "kes::thread::CoopThread::request",
                      "kes::thread::CoopThread::coopState", "kes::thread::CoopThread::thread"},
       .raises = threadErrors,
       .play =
           [](Stage& stage) {
             Pausing body;
             std::optional<CoopThread> thread;
             stage.act([&] { thread.emplace("pausing", &body); });
             if (!thread) thread.emplace("pausing", &body);
             const sys::AtEnd ending([&] { end(*thread); });

             stage.act([&] { thread->requestPause(); });
             stage.act([&] { thread->run(); });
             if (thread->state() != BasicThread::BURIED && thread->request() == CoopThread::Pause) {
               stage.act([&] { thread->waitPaused(); });
             }
             stage.act([&] { thread->requestRun(); });
             stage.act([&] { (void)thread->coopState(); });
             stage.act([&] { thread->requestReturn(); });
             thread->requestReturn();
             stage.act([&] { thread->waitReturned(); });
             stage.act([&] { thread->join(); });
             thread->join();
             const int before = body.returns;
             thread->run();
             thread->requestReturn();
             thread->join();
             stage.check(body.returns == before + 1, "it can be used afterwards");
           },
       .misused = lockCalls,
       .mayEnd = lockCalls});
}

TEST(EveryFailureOfThreads, ACooperativeThreadSleeps) {
  expectSurvival({.operations = {"kes::thread::CoopThread::sleep"},
                  .raises = threadErrors,
                  .play =
                      [](Stage& stage) {
                        time::ClockBase::init();
                        Sleeping body;
                        CoopThread thread("sleeping", &body);
                        const sys::AtEnd ending([&] { end(thread); });

                        stage.act([&] {
                          thread.run();
                          thread.waitReturned();
                        });
                        stage.act([&] { thread.join(); });
                        thread.join();
                      },
                  .misused = lockCallsAnd({Call::pthread_cond_timedwait, Call::clock_gettime}),
                  .mayEnd = lockCalls});
}

TEST(EveryFailureOfThreads, AThreadGivesWayAndTellsItsNumber) {
  expectSurvival(
      {.operations = {"kes::thread::BasicThread::yield", "kes::thread::getNativeThreadId",
                      "kes::thread::BasicThread::Id::Id", "kes::thread::BasicThread::Id::friendly"},
       .raises = {raises("kes::OsError"), raises("kes::RuntimeError", {}, "Id")},
       .play =
           [](Stage& stage) {
             stage.act([] { BasicThread::yield(); });
             stage.act([] { getNativeThreadId(); });
             std::string text;
             const bool told = stage.act([&] { text = BasicThread::Id("18446744073709551615").friendly(); });
             stage.check(!told || text == "18446744073709551615", "the number is whole");
           },
       .misused = {Call::sched_yield}});
}

}  // namespace
}  // namespace kes::thread
