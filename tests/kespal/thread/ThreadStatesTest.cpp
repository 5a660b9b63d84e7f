// Every life state against every operation: what it raises, whether it has to wait for the thread, and the
// state that it leaves behind.
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <ostream>
#include <string>

#include "kespal/thread/NativeThreads.h"
#include "kespal/thread/Subject.h"
#include "kespal/thread/Thread.h"
#include "support/Calls.h"
#include "support/Eventually.h"
#include "support/Gate.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"

namespace kes::thread {
namespace {

using namespace test;

constexpr const char* source = "src/thread/Thread";
constexpr const char* osSource = "src/os/posix/thread/Thread";

constexpr BasicThread::State states[] = {BasicThread::BURIED,           BasicThread::CREATED,
                                         BasicThread::STARTING,         BasicThread::RUNNING,
                                         BasicThread::FINISHED,         BasicThread::CREATED,
                                         BasicThread::RUNNING_DETACHED, BasicThread::RUNNING_DETACHED};

enum class Operation { Run, Create, Join, PrepareJoin, Kill, Id, WaitStartOver };

constexpr const char* lifeNames[] = {"Buried",   "Created",      "Starting",        "Running",
                                     "Finished", "HeldDetached", "RunningDetached", "EndedDetached"};
constexpr const char* operationNames[] = {"Run",  "Create", "Join",         "PrepareJoin",
                                          "Kill", "Id",     "WaitStartOver"};

enum Waiting { AtOnce, ForTheThread };

struct Row {
  Life life;
  Operation operation;
  Raised raises;
  Waiting waiting;
  BasicThread::State after;
  int ran;  ///< how often the body has begun in the end
};

void PrintTo(const Row& row, std::ostream* os) {
  *os << operationNames[static_cast<int>(row.operation)] << " of " << lifeNames[static_cast<int>(row.life)];
}

const Raised nothing;
const Raised notBuried = usageError("Tried to start a thread that is not BURIED", osSource, 154, "create");
const Raised isDetached = usageError("Tried to join a detached thread", source, 199, "prepareJoin");
const Raised noId = runtimeError("Can't get ID for non-existing thread", source, 145, "throwGetIdError");
const Raised cannotJoin = osError(EINVAL, osSource, 190, "join");
const Raised isGone = osError(ESRCH, osSource, 225, "kill");

using enum Operation;
using T = BasicThread;

const Row table[] = {
    {Life::Buried, Run, nothing, AtOnce, T::RUNNING, 1},
    {Life::Buried, Create, nothing, AtOnce, T::CREATED, 0},
    {Life::Buried, Join, nothing, AtOnce, T::BURIED, 0},
    {Life::Buried, PrepareJoin, nothing, AtOnce, T::BURIED, 0},
    {Life::Buried, Kill, nothing, AtOnce, T::BURIED, 0},
    {Life::Buried, Operation::Id, noId, AtOnce, T::BURIED, 0},
    {Life::Buried, WaitStartOver, nothing, AtOnce, T::BURIED, 0},

    {Life::Created, Run, notBuried, AtOnce, T::CREATED, 0},
    {Life::Created, Create, notBuried, AtOnce, T::CREATED, 0},
    {Life::Created, Join, nothing, AtOnce, T::BURIED, 0},
    {Life::Created, PrepareJoin, nothing, AtOnce, T::FINISHED, 0},
    {Life::Created, Kill, nothing, AtOnce, T::BURIED, 0},
    {Life::Created, Operation::Id, noId, AtOnce, T::CREATED, 0},
    {Life::Created, WaitStartOver, nothing, AtOnce, T::CREATED, 0},

    {Life::Starting, Run, notBuried, AtOnce, T::STARTING, 1},
    {Life::Starting, Create, notBuried, AtOnce, T::STARTING, 1},
    {Life::Starting, Join, nothing, ForTheThread, T::BURIED, 1},
    {Life::Starting, PrepareJoin, nothing, AtOnce, T::STARTING, 1},
    {Life::Starting, Kill, nothing, ForTheThread, T::BURIED, 1},
    {Life::Starting, Operation::Id, nothing, ForTheThread, T::RUNNING, 1},
    {Life::Starting, WaitStartOver, nothing, ForTheThread, T::RUNNING, 1},

    {Life::Running, Run, notBuried, AtOnce, T::RUNNING, 1},
    {Life::Running, Create, notBuried, AtOnce, T::RUNNING, 1},
    {Life::Running, Join, nothing, ForTheThread, T::BURIED, 1},
    {Life::Running, PrepareJoin, nothing, AtOnce, T::RUNNING, 1},
    {Life::Running, Kill, nothing, ForTheThread, T::BURIED, 1},
    {Life::Running, Operation::Id, nothing, AtOnce, T::RUNNING, 1},
    {Life::Running, WaitStartOver, nothing, AtOnce, T::RUNNING, 1},

    {Life::Finished, Run, notBuried, AtOnce, T::FINISHED, 1},
    {Life::Finished, Create, notBuried, AtOnce, T::FINISHED, 1},
    {Life::Finished, Join, nothing, AtOnce, T::BURIED, 1},
    {Life::Finished, PrepareJoin, nothing, AtOnce, T::FINISHED, 1},
    {Life::Finished, Kill, nothing, AtOnce, T::BURIED, 1},
    {Life::Finished, Operation::Id, nothing, AtOnce, T::FINISHED, 1},
    {Life::Finished, WaitStartOver, nothing, AtOnce, T::FINISHED, 1},

    {Life::HeldDetached, Run, notBuried, AtOnce, T::CREATED, 0},
    {Life::HeldDetached, Create, notBuried, AtOnce, T::CREATED, 0},
    {Life::HeldDetached, Join, cannotJoin, AtOnce, T::FINISHED, 0},
    {Life::HeldDetached, PrepareJoin, nothing, AtOnce, T::FINISHED, 0},
    {Life::HeldDetached, Kill, cannotJoin, AtOnce, T::FINISHED, 0},
    {Life::HeldDetached, Operation::Id, noId, AtOnce, T::CREATED, 0},
    {Life::HeldDetached, WaitStartOver, nothing, AtOnce, T::CREATED, 0},

    {Life::RunningDetached, Run, notBuried, AtOnce, T::RUNNING_DETACHED, 1},
    {Life::RunningDetached, Create, notBuried, AtOnce, T::RUNNING_DETACHED, 1},
    {Life::RunningDetached, Join, isDetached, AtOnce, T::RUNNING_DETACHED, 1},
    {Life::RunningDetached, PrepareJoin, isDetached, AtOnce, T::RUNNING_DETACHED, 1},
    {Life::RunningDetached, Kill, isDetached, AtOnce, T::RUNNING_DETACHED, 1},
    {Life::RunningDetached, Operation::Id, nothing, AtOnce, T::RUNNING_DETACHED, 1},
    {Life::RunningDetached, WaitStartOver, nothing, AtOnce, T::RUNNING_DETACHED, 1},

    {Life::EndedDetached, Run, notBuried, AtOnce, T::RUNNING_DETACHED, 1},
    {Life::EndedDetached, Create, notBuried, AtOnce, T::RUNNING_DETACHED, 1},
    {Life::EndedDetached, Join, isDetached, AtOnce, T::RUNNING_DETACHED, 1},
    {Life::EndedDetached, PrepareJoin, isDetached, AtOnce, T::RUNNING_DETACHED, 1},
    {Life::EndedDetached, Kill, isGone, AtOnce, T::RUNNING_DETACHED, 1},
    {Life::EndedDetached, Operation::Id, nothing, AtOnce, T::RUNNING_DETACHED, 1},
    {Life::EndedDetached, WaitStartOver, nothing, AtOnce, T::RUNNING_DETACHED, 1},
};

void perform(BasicThread& thread, Life life, Operation operation) {
  switch (operation) {
    case Run:
      return thread.run();
    case Create:
      return thread.create();
    case Join:
      return thread.join();
    case PrepareJoin:
      EXPECT_EQ(thread.prepareJoin(), life != Life::Buried);
      return;
    case Kill:
      return thread.kill();
    case Operation::Id:
      EXPECT_GT(thread.id().nativeId, 0u);
      return;
    case WaitStartOver:
      return thread.waitStartOver();
  }
}

class ThreadStatesTest : public testing::TestWithParam<Row> {};

TEST_P(ThreadStatesTest, AnOperationDoesWhatTheTableSays) {
  const Row& row = GetParam();
  if (row.operation == Kill) {
    KES_SKIP_UNDER_THREAD_SANITIZER("does not follow cancelled threads");
  }
  Subject subject(row.life);
  ASSERT_EQ(subject.thread().state(), states[static_cast<int>(row.life)]);

  std::future<Raised> result = std::async(std::launch::async, [&] {
    return raisedBy([&] { perform(subject.thread(), row.life, row.operation); });
  });
  if (row.waiting == ForTheThread) {
    // No proof that it would wait for ever, but an operation that does not wait is caught.
    EXPECT_EQ(result.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    row.after == T::BURIED ? subject.openAll() : subject.start();
  }
  EXPECT_EQ(result.get(), row.raises);
  EXPECT_TRUE(eventually([&] { return subject.thread().state() == row.after; }))
      << "state " << subject.thread().state() << " instead of " << row.after;
  subject.end();
  EXPECT_EQ(subject.ran(), row.ran);
}

INSTANTIATE_TEST_SUITE_P(EveryStateAndOperation, ThreadStatesTest, testing::ValuesIn(table),
                         [](const auto& test) {
                           return std::string(operationNames[static_cast<int>(test.param.operation)]) + "Of" +
                                  lifeNames[static_cast<int>(test.param.life)];
                         });

class ThreadDestructionTest : public testing::TestWithParam<Life> {};

TEST_P(ThreadDestructionTest, AThreadObjectCanBeDestroyedInEveryState) {
  Subject subject(GetParam());
  const bool willRun =
      GetParam() != Life::Buried && GetParam() != Life::Created && GetParam() != Life::HeldDetached;
  subject.destroy();  // does not wait for a body
  subject.end();
  EXPECT_EQ(subject.ran(), willRun ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(EveryState, ThreadDestructionTest,
                         testing::Values(Life::Buried, Life::Created, Life::Starting, Life::Running,
                                         Life::Finished, Life::HeldDetached, Life::RunningDetached,
                                         Life::EndedDetached),
                         [](const auto& test) { return lifeNames[static_cast<int>(test.param)]; });

}  // namespace
}  // namespace kes::thread
