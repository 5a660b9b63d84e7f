#include <optional>

#include "kespal/thread/BasicThread.h"
#include "support/EveryFailure.h"

namespace kes::thread {
namespace {

using test::Call;
using test::expectSurvival;
using test::raises;
using test::Stage;

/// What a thread's life stands on. Whose lock or waking is refused in a destructor, or as a native thread's
/// last step, ends the program.
const std::vector<Call> lockCalls = {Call::pthread_mutex_lock, Call::pthread_cond_broadcast,
                                     Call::pthread_cond_wait};

void count(void* counter) { ++*static_cast<int*>(counter); }

TEST(EveryFailureOfThreads, AThreadRunsAndIsJoined) {
  expectSurvival({.operations = {"kes::thread::BasicThread::run", "kes::thread::BasicThread::create",
                                 "kes::thread::BasicThread::join", "kes::thread::BasicThread::BasicThread",
                                 "kes::thread::BasicThread::~BasicThread"},
                  .raises = {raises("kes::OsError")},
                  .play =
                      [](Stage& stage) {
                        int runs = 0;
                        std::optional<BasicThread> thread;
                        stage.act([&] { thread.emplace(count, "counts", &runs, false, 0); });
                        if (!thread) return;
                        if (stage.act([&] { thread->run(); })) {
                          stage.act([&] { thread->join(); });
                          if (!stage.succeeded()) thread->join();
                        }
                        if (thread->state() != BasicThread::BURIED) thread->join();  // it was not let go
                        const int before = runs;
                        thread->run();
                        thread->join();
                        stage.check(runs == before + 1, "it can be used afterwards");
                      },
                  .misused = lockCalls,
                  .mayEnd = lockCalls});
}

}  // namespace
}  // namespace kes::thread
