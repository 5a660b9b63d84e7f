#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <future>
#include <string>
#include <thread>

#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/Pipe.h"
#include "kespal/proc/Child.h"
#include "kespal/proc/Collecting.h"
#include "kespal/proc/Shepherd.h"
#include "kespal/time/Clock.h"
#include "support/Calls.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"

namespace kes::proc {
namespace {

using namespace std::chrono_literals;
using test::Call;
using test::errorOf;
using test::eventually;
using test::made;
using test::Refuse;

class ChildTerminateTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { time::ClockBase::init(); }
  void TearDown() override { Child::exit(); }
};

/// A shell that says when it has done what comes before its sleep.
class Sleeper {
 public:
  explicit Sleeper(const std::string& preparation)
      : child({"/bin/sh", "-c", preparation + "; echo; while :; do sleep 0.01; done"}) {
    const fs::Pipe pipe = fs::Pipe::make();
    child.setStdout(pipe.writeEnd);
    child.create();
    ::close(pipe.writeEnd);
    char ready = 0;
    EXPECT_EQ(::read(pipe.readEnd, &ready, 1), 1);
    ::close(pipe.readEnd);
  }

  Child child;
};

TEST_F(ChildTerminateTest, AProgramThatEndsOnSigtermHasTheGraceForIt) {
  Sleeper sleeper("trap 'exit 5' TERM");
  EXPECT_EQ(sleeper.child.terminate(600s).text(), "exited 5");
  EXPECT_EQ(sleeper.child.pid(), -1);
}

TEST_F(ChildTerminateTest, OneThatDoesNotIsKilledWhenTheGraceIsOver) {
  for (const auto grace : {-1ms, 0ms, 30ms}) {
    Sleeper sleeper("trap '' TERM");
    EXPECT_EQ(sleeper.child.terminate(grace).text(), "killed by SIGKILL");
  }
}

TEST_F(ChildTerminateTest, OneThatHadEndedBeforeIsNotSignalled) {
  Child child({"/bin/sh", "-c", "exit 3"});
  child.create();
  ASSERT_TRUE(eventually([&] { return ::kill(child.pid(), 0) == -1; }));
  const int before = made(Call::kill);
  EXPECT_EQ(child.terminate(0ms).text(), "exited 3");
  EXPECT_EQ(made(Call::kill), before);
}

TEST_F(ChildTerminateTest, OneThatHasBeenReapedIsNotKilledWhileSomebodyIsToldOfItsEnd) {
  test::SlowToBeTold slow;
  Child child({"/bin/sleep", "3600"});
  child.setNotify(&slow);
  child.create();
  const int waits = made(Call::pthread_cond_clockwait), before = made(Call::kill);
  constexpr auto grace = 1s;  // enough for its end to be seen on a machine that is busy
  auto status = std::async(std::launch::async, [&] { return child.terminate(grace); });
  ASSERT_TRUE(eventually([&] { return slow.begun && made(Call::pthread_cond_clockwait) > waits; }));
  EXPECT_EQ(status.wait_for(grace + 100ms), std::future_status::timeout);
  slow.hold.open();
  EXPECT_EQ(status.get().text(), "killed by SIGTERM");
  EXPECT_EQ(made(Call::kill), before + 1);
}

TEST_F(ChildTerminateTest, WhoeverElseWaitsGetsTheStatusToo) {
  for (int round = 0; round < 50; ++round) {
    Child child({"/bin/sleep", "3600"});
    child.create();
    const int before = made(Call::pthread_cond_wait);
    auto other = std::async(std::launch::async, [&child] { return child.wait(); });
    ASSERT_TRUE(eventually([&] { return made(Call::pthread_cond_wait) > before; }));
    EXPECT_EQ(child.terminate(600s).text(), "killed by SIGTERM");
    EXPECT_EQ(other.get().status, SIGTERM);
    EXPECT_EQ(child.pid(), -1);
  }
}

TEST_F(ChildTerminateTest, NeitherItNorAWaitForASpanAsksTheCalendarClock) {
  const auto result = test::inChild([] {
    time::OsClock::REALTIME = 0;  // no such clock
    Child child({"/bin/sleep", "3600"});
    child.create();
    if (child.waitFor(10ms).finished || child.waitFor(-1ms).finished) return 1;
    const bool terminated = child.terminate(600s).signal() == SIGTERM;
    child.setArguments({"/bin/true"});
    child.create();
    const bool finished = child.waitFor(time::Milliseconds::max()).finished;
    Child::exit();
    return terminated && finished ? 0 : 2;
  });
  EXPECT_EQ(result.exitCode(), 0) << result.err;
}

TEST_F(ChildTerminateTest, BeforeTheClocksAreReadyNothingIsSignalled) {
  const auto result = test::inChild([] {
    time::OsClock::MONOTONIC = 0;
    Child child({"/bin/sleep", "3600"});
    child.create();
    const int before = made(Call::kill);
    const int errnum = test::raisedAs<OsError>([&] { child.terminate(0ms); }).errnum();
    const bool stays = child.pid() != -1 && made(Call::kill) == before;
    child.kill();
    return errnum == EINVAL && stays ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0) << result.err;
}

TEST_F(ChildTerminateTest, WithoutAChildItIsAnError) {
  Child child({"/bin/true"});
  EXPECT_EQ(errorOf([&] { child.terminate(0ms); }), "Tried to terminate a child that does not exist");
  EXPECT_EQ(errorOf([&] { child.waitFor(0ms); }), "tried to wait on non-existent child");
}

TEST_F(ChildTerminateTest, AChildThatCannotBeSignalledStaysWhatItIs) {
  Child child({"/bin/sleep", "3600"});
  child.create();
  {
    const Refuse refuse(Call::kill, EPERM);
    EXPECT_EQ(test::raisedAs<OsError>([&] { child.terminate(0ms); }).errnum(), EPERM);
  }
  EXPECT_NE(child.pid(), -1);
  EXPECT_EQ(child.terminate(600s).text(), "killed by SIGTERM");
}

TEST_F(ChildTerminateTest, OnTheCollectorsThreadNothingIsSignalledWhoseEndCannotBeAwaited) {
  struct Asker : Child::Notification {
    void exited(Child&) override {
      answer.set_value(errorOf([this] { other->terminate(0ms); }));
    }
    Child* other = nullptr;
    std::promise<std::string> answer;
  } asker;
  Child running({"/bin/sleep", "3600"}), ended({"/bin/true"});
  running.create();
  const pid_t pid = running.pid();
  asker.other = &running;
  ended.setNotify(&asker);
  ended.create();
  EXPECT_EQ(asker.answer.get_future().get(), "need no lock but my result's not there?!");
  EXPECT_EQ(::kill(pid, SIGTERM), 0);
}

TEST_F(ChildTerminateTest, WithoutACollectorTheChildIsLeftAlone) {
  Child child({"/bin/sleep", "3600"});
  child.create();
  const pid_t pid = child.pid();
  {
    const Shepherd::Guard guard(Child::m_shepherd->condition());  // so that the fork is not reaped there
    const auto inFork = test::inChild([&child] {
      return errorOf([&child] { child.terminate(0ms); }) == "There is no process collector" ? 0 : 1;
    });
    EXPECT_EQ(inFork.exitCode(), 0);
  }
  Child::exit();
  EXPECT_EQ(errorOf([&] { child.terminate(0ms); }), "The process collector has ended");
  EXPECT_EQ(child.pid(), -1);
  EXPECT_EQ(::kill(pid, SIGKILL), 0);
}

TEST_F(ChildTerminateTest, AWaitForASpanThatNobodyCanEndLeavesTheObjectForTheNextChild) {
  Child child({"/bin/sleep", "3600"});
  child.create();
  const pid_t pid = child.pid();
  Child::exit();
  EXPECT_EQ(errorOf([&] { child.waitFor(600s); }), "The process collector has ended");
  EXPECT_EQ(child.pid(), -1);
  EXPECT_EQ(::kill(pid, SIGKILL), 0);
  child.setArguments({"/bin/true"});
  child.create();
  EXPECT_TRUE(child.waitFor(600s).finished);
}

TEST_F(ChildTerminateTest, WhoIsCancelledInTheGraceLeavesAChildThatCanBeWaitedFor) {
  KES_SKIP_UNDER_SANITIZERS("loses track of the stack of a thread that a cancellation unwinds");
  Sleeper sleeper("trap '' TERM");
  const int before = made(Call::pthread_cond_clockwait);
  std::thread terminator([&sleeper] { sleeper.child.terminate(600s); });
  ASSERT_TRUE(eventually([&] { return made(Call::pthread_cond_clockwait) > before; }));
  ::pthread_cancel(terminator.native_handle());
  terminator.join();
  EXPECT_EQ(sleeper.child.terminate(0ms).text(), "killed by SIGKILL");
}

}  // namespace
}  // namespace kes::proc
