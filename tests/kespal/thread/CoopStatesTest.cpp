// What a cooperative thread does, against every operation of other threads: what the operation raises,
// whether it waits and for what, and what is asked and done in the end.
#include <atomic>
#include <chrono>
#include <future>
#include <optional>
#include <ostream>
#include <string>

#include "kespal/thread/CoopThread.h"
#include "kespal/thread/NativeThreads.h"
#include "support/Calls.h"
#include "support/Eventually.h"
#include "support/Gate.h"
#include "support/Raised.h"

namespace kes::thread {
namespace {

using namespace test;
using time::Milliseconds;
using time::RealtimeClock;

enum class Doing { Buried, Held, Starting, Running, Paused, Sleeping, Returned };
enum class Operation {
  RequestRun,
  RequestReturn,
  RequestPause,
  WaitRunning,
  WaitPaused,
  WaitReturned,
  Pause,
  Sleep
};
enum class Until { AtOnce, Started, AskedToRun, AskedToReturn, BodyEnds };  ///< what an operation waits for

constexpr const char* doingNames[] = {"Buried", "Held",     "Starting", "Running",
                                      "Paused", "Sleeping", "Returned"};
constexpr const char* operationNames[] = {"RequestRun", "RequestReturn", "RequestPause", "WaitRunning",
                                          "WaitPaused", "WaitReturned",  "Pause",        "Sleep"};

struct Row {
  Operation operation;
  Doing doing;
  Raised raises;
  Until until = Until::AtOnce;
};

void PrintTo(const Row& row, std::ostream* os) {
  *os << operationNames[static_cast<int>(row.operation)] << " while "
      << doingNames[static_cast<int>(row.doing)];
}

constexpr const char* source = "src/thread/Thread";
const Raised nothing;
const Raised noId = runtimeError("Can't get ID for non-existing thread", source, 145, "throwGetIdError");
const Raised pauseByOther = usageError("Pause called from foreign thread", source, 330, "pause");
const Raised sleepByOther = usageError("Pause called from foreign thread", source, 354, "sleep");

Raised buried(int line, const char* function) {
  return usageError("Thread is already buried", source, line, function);
}
Raised returned(int line, const char* function) {
  return usageError("CoopThread has returned", source, line, function);
}

using enum Operation;

const Row table[] = {
    {WaitRunning, Doing::Buried, buried(260, "waitRunning")},
    {WaitRunning, Doing::Held, noId},
    {WaitRunning, Doing::Starting, nothing, Until::Started},
    {WaitRunning, Doing::Running, nothing},
    {WaitRunning, Doing::Paused, nothing, Until::AskedToRun},
    {WaitRunning, Doing::Sleeping, nothing, Until::AskedToReturn},
    {WaitRunning, Doing::Returned, returned(277, "waitRunning")},

    {WaitPaused, Doing::Buried, buried(304, "waitPaused")},
    {WaitPaused, Doing::Held, noId},
    {WaitPaused, Doing::Starting, returned(321, "waitPaused"), Until::BodyEnds},
    {WaitPaused, Doing::Running, returned(321, "waitPaused"), Until::BodyEnds},
    {WaitPaused, Doing::Paused, nothing},
    {WaitPaused, Doing::Sleeping, nothing},
    {WaitPaused, Doing::Returned, returned(321, "waitPaused")},

    {WaitReturned, Doing::Buried, nothing},
    {WaitReturned, Doing::Held, noId},
    {WaitReturned, Doing::Starting, nothing, Until::BodyEnds},
    {WaitReturned, Doing::Running, nothing, Until::BodyEnds},
    {WaitReturned, Doing::Paused, nothing, Until::BodyEnds},
    {WaitReturned, Doing::Sleeping, nothing, Until::BodyEnds},
    {WaitReturned, Doing::Returned, nothing},

    {Pause, Doing::Buried, noId},
    {Pause, Doing::Held, noId},
    {Pause, Doing::Starting, pauseByOther, Until::Started},
    {Pause, Doing::Running, pauseByOther},
    {Pause, Doing::Paused, pauseByOther},
    {Pause, Doing::Sleeping, pauseByOther},
    {Pause, Doing::Returned, pauseByOther},

    {Sleep, Doing::Buried, noId},
    {Sleep, Doing::Held, noId},
    {Sleep, Doing::Starting, sleepByOther, Until::Started},
    {Sleep, Doing::Running, sleepByOther},
    {Sleep, Doing::Paused, sleepByOther},
    {Sleep, Doing::Sleeping, sleepByOther},
    {Sleep, Doing::Returned, sleepByOther},
};

RealtimeClock farAway() {
  RealtimeClock clock;
  clock += Milliseconds(600'000);
  return clock;
}

/// A cooperative thread that is brought to a state and stays there until it is released.
class Subject : public CoopThread, public CoopThread::ICoopThread {
 public:
  explicit Subject(Doing doing) : CoopThread("subject", nullptr, this), doing_(doing) { bring(); }
  ~Subject() override {
    release(Until::BodyEnds);
    join();
  }

  void thread(CoopThread&) override {
    if (doing_ == Doing::Sleeping) {
      sleep(farAway());
    } else {
      pause();
    }
    working_.open();
    if (doing_ != Doing::Returned) body_.pass();
  }
  using CoopThread::thread;

  void release(Until until) {
    if (until == Until::AtOnce) return;
    start_.open();
    if (until == Until::AskedToRun) return requestRun();
    if (until >= Until::AskedToReturn) requestReturn();
    if (until == Until::BodyEnds) body_.open();
  }

 private:
  void bring() {
    switch (doing_) {
      case Doing::Buried:
        return;
      case Doing::Held:
        return create();
      case Doing::Starting:
        hold_.emplace(Call::pthread_setname_np, [this] { start_.pass(); });
        return run();
      case Doing::Running:
        run();
        return working_.pass();
      case Doing::Paused:
        requestPause();
        [[fallthrough]];
      case Doing::Sleeping:
        run();
        return waitPaused();
      case Doing::Returned:
        run();
        return waitReturned();
    }
  }

  const Doing doing_;
  Gate start_;
  Gate working_;
  Gate body_;
  std::optional<After> hold_;
};

void perform(Subject& subject, Operation operation) {
  switch (operation) {
    case RequestRun:
      return subject.requestRun();
    case RequestReturn:
      return subject.requestReturn();
    case RequestPause:
      return subject.requestPause();
    case WaitRunning:
      return subject.waitRunning();
    case WaitPaused:
      return subject.waitPaused();
    case WaitReturned:
      return subject.waitReturned();
    case Operation::Pause:
      return subject.pause();
    case Sleep:
      subject.sleep(farAway());
      return;
  }
}

class CoopStatesTest : public testing::TestWithParam<Row> {
 protected:
  void SetUp() override { time::ClockBase::init(); }
};

TEST_P(CoopStatesTest, AnOperationOfAnotherThreadDoesWhatTheTableSays) {
  const Row& row = GetParam();
  Subject subject(row.doing);
  std::future<Raised> result =
      std::async(std::launch::async, [&] { return raisedBy([&] { perform(subject, row.operation); }); });
  if (row.until != Until::AtOnce) {
    // No proof that it would wait for ever, but an operation that does not wait is caught.
    EXPECT_EQ(result.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    subject.release(row.until);
  }
  EXPECT_EQ(result.get(), row.raises);
}

INSTANTIATE_TEST_SUITE_P(EveryStateAndWait, CoopStatesTest, testing::ValuesIn(table), [](const auto& test) {
  return std::string(operationNames[static_cast<int>(test.param.operation)]) + "While" +
         doingNames[static_cast<int>(test.param.doing)];
});

/// Requests never raise; what they change shows in what is asked and done afterwards.
struct RequestRow {
  Operation operation;
  Doing doing;
  CoopThread::Request asked;
  CoopThread::CoopState done;
};

void PrintTo(const RequestRow& row, std::ostream* os) {
  *os << operationNames[static_cast<int>(row.operation)] << " while "
      << doingNames[static_cast<int>(row.doing)];
}

using T = CoopThread;

const RequestRow requests[] = {
    {RequestRun, Doing::Buried, T::Run, T::Running},
    {RequestRun, Doing::Held, T::Run, T::Running},
    {RequestRun, Doing::Starting, T::Run, T::Running},
    {RequestRun, Doing::Running, T::Run, T::Running},
    {RequestRun, Doing::Paused, T::Run, T::Running},
    {RequestRun, Doing::Sleeping, T::Run, T::Paused},
    {RequestRun, Doing::Returned, T::Run, T::Returned},

    {RequestReturn, Doing::Buried, T::Return, T::Running},
    {RequestReturn, Doing::Held, T::Return, T::Running},
    {RequestReturn, Doing::Starting, T::Return, T::Running},
    {RequestReturn, Doing::Running, T::Return, T::Running},
    {RequestReturn, Doing::Paused, T::Return, T::Running},
    {RequestReturn, Doing::Sleeping, T::Return, T::Running},
    {RequestReturn, Doing::Returned, T::Return, T::Returned},

    {RequestPause, Doing::Buried, T::Pause, T::Running},
    {RequestPause, Doing::Held, T::Pause, T::Running},
    {RequestPause, Doing::Starting, T::Pause, T::Running},
    {RequestPause, Doing::Running, T::Pause, T::Running},
    {RequestPause, Doing::Paused, T::Pause, T::Paused},
    {RequestPause, Doing::Sleeping, T::Pause, T::Paused},
    {RequestPause, Doing::Returned, T::Pause, T::Returned},
};

class CoopRequestsTest : public testing::TestWithParam<RequestRow> {
 protected:
  void SetUp() override { time::ClockBase::init(); }
};

TEST_P(CoopRequestsTest, ARequestIsTakenInEveryState) {
  const RequestRow& row = GetParam();
  Subject subject(row.doing);
  EXPECT_EQ(raisedBy([&] { perform(subject, row.operation); }), nothing);
  EXPECT_EQ(subject.request(), row.asked);
  EXPECT_TRUE(eventually([&] { return subject.coopState() == row.done; })) << subject.coopState();
}

INSTANTIATE_TEST_SUITE_P(EveryStateAndRequest, CoopRequestsTest, testing::ValuesIn(requests),
                         [](const auto& test) {
                           return std::string(operationNames[static_cast<int>(test.param.operation)]) +
                                  "While" + doingNames[static_cast<int>(test.param.doing)];
                         });

class CoopDestructionTest : public testing::TestWithParam<Doing> {
 protected:
  void SetUp() override { time::ClockBase::init(); }
};

/// A body that does not touch its thread once it got through its first step.
struct Body : CoopThread::ICoopThread {
  void thread(CoopThread&) override {
    ran = true;
    gate.pass();
    ended = true;
  }
  Gate gate;
  std::atomic<bool> ran{false};
  std::atomic<bool> ended{false};
};

TEST_P(CoopDestructionTest, ACooperativeThreadCanBeDestroyedWhileItsBodyIsBusyElsewhere) {
  Body body;
  Gate start;
  std::optional<After> hold;
  {
    CoopThread coop("coop", &body);
    if (GetParam() == Doing::Held) coop.create();
    if (GetParam() == Doing::Starting) hold.emplace(Call::pthread_setname_np, [&] { start.pass(); });
    if (GetParam() == Doing::Returned) body.gate.open();
    if (GetParam() >= Doing::Starting) coop.run();
    if (GetParam() == Doing::Running) {
      EXPECT_TRUE(eventually([&] { return body.ran.load(); }));
    }
    if (GetParam() == Doing::Returned) coop.waitReturned();
  }
  // A thread that had not picked up its go does not run the body of an object that is gone.
  EXPECT_EQ(body.ran, GetParam() == Doing::Running || GetParam() == Doing::Returned);
  start.open();
  body.gate.open();
  EXPECT_TRUE(aloneInTheEnd());
  EXPECT_EQ(body.ended, body.ran.load());
}

INSTANTIATE_TEST_SUITE_P(EveryState, CoopDestructionTest,
                         testing::Values(Doing::Buried, Doing::Held, Doing::Starting, Doing::Running,
                                         Doing::Returned),
                         [](const auto& test) { return doingNames[static_cast<int>(test.param)]; });

}  // namespace
}  // namespace kes::thread
