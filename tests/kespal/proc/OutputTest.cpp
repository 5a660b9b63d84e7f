#include "kespal/proc/Output.h"

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <iostream>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/Pipe.h"
#include "kespal/proc/Child.h"
#include "kespal/time/Clock.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"

namespace kes::proc {
namespace {

using namespace std::chrono_literals;
using test::Call;
using test::eventually;
using test::inChild;
using test::Refuse;

class OutputTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { time::ClockBase::init(); }
  void TearDown() override { Child::exit(); }
};

Output outputOf(const std::string& command, const OutputOptions& options = {}) {
  Child child({"/bin/sh", "-c", command});
  return captureOutput(child, options);
}

TEST_F(OutputTest, TheTwoOutputsAreKeptApart) {
  const Output output = outputOf("echo out; echo err >&2; exit 3");
  EXPECT_EQ(output.status.text(), "exited 3");
  EXPECT_EQ(output.out, "out\n");
  EXPECT_EQ(output.err, "err\n");
  EXPECT_FALSE(output.truncated || output.timedOut);
}

TEST_F(OutputTest, TheyAreJoinedInTheOrderOfWritingIfThatIsWanted) {
  const Output output = outputOf("echo 1; echo 2 >&2; echo 3; echo 4 >&2", {.joined = true});
  EXPECT_EQ(output.out, "1\n2\n3\n4\n");
  EXPECT_EQ(output.err, "");
}

TEST_F(OutputTest, WithoutInputThereIsItsEndAtOnce) { EXPECT_EQ(outputOf("cat; echo done").out, "done\n"); }

TEST_F(OutputTest, MoreInputAndOutputThanPipesHoldPassBothWaysAtOnce) {
  std::string input;
  while (input.size() < 3'000'000) input += std::to_string(input.size()) + '\n';
  const Output output = outputOf("tee /dev/stderr", {.input = input, .most = input.size()});
  EXPECT_TRUE(output.out == input && output.err == input);
  EXPECT_FALSE(output.truncated);
}

TEST_F(OutputTest, AProgramNeedNotReadItsInput) {
  const std::string input(1'000'000, 'x');
  const auto result = inChild([&input] {
    ::signal(SIGPIPE, SIG_DFL);
    Child early({"/bin/true"}), late({"/bin/sh", "-c", "exec <&-; echo done"});
    captureOutput(early, {.input = input});
    std::cout << captureOutput(late, {.input = input}).out;
    ::sigset_t blocked, pending;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    ::sigpending(&pending);
    std::cout << sigismember(&blocked, SIGPIPE) << sigismember(&pending, SIGPIPE);
    Child::exit();
    return 0;
  });
  EXPECT_EQ(result.out, "done\n00") << result.err;
}

TEST_F(OutputTest, ABrokenPipeThatWasPendingStaysSo) {
  const std::string input(1'000'000, 'x');
  const auto result = inChild([&input] {
    ::sigset_t brokenPipe, pending;
    sigemptyset(&brokenPipe);
    sigaddset(&brokenPipe, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
    ::pthread_kill(::pthread_self(), SIGPIPE);
    Child child({"/bin/true"});
    captureOutput(child, {.input = input});
    Child::exit();
    ::sigpending(&pending);
    return sigismember(&pending, SIGPIPE);
  });
  EXPECT_EQ(result.exitCode(), 1);
}

TEST_F(OutputTest, WhatIsBeyondTheMostIsDroppedAndSaidSoAndTheProgramGoesOn) {
  const Output cut =
      outputOf("echo 0123456789; head -c 1000000 /dev/zero >&2; echo more; exit 7", {.most = 10});
  EXPECT_EQ(cut.out, "0123456789");
  EXPECT_EQ(cut.err, std::string(10, '\0'));
  EXPECT_TRUE(cut.truncated);
  EXPECT_EQ(cut.status.text(), "exited 7");
  EXPECT_FALSE(outputOf("printf 0123456789", {.most = 10}).truncated);
  EXPECT_TRUE(outputOf("printf 0", {.most = 0}).truncated);
}

TEST_F(OutputTest, AProgramThatTakesTooLongIsToldToEndAndItsOutputKept) {
  const Output output = outputOf("echo begun; exec sleep 3600", {.limit = 200ms, .grace = 600s});
  EXPECT_TRUE(output.timedOut);
  EXPECT_EQ(output.status.text(), "killed by SIGTERM");
  EXPECT_EQ(output.out, "begun\n");
}

TEST_F(OutputTest, WhatItWritesOnItsWayOutIsTakenAlong) {
  // More than a pipe holds: it cannot end before somebody has read that.
  const Output output =
      outputOf("trap 'head -c 300000 /dev/zero; exit 4' TERM; echo begun >&2; while :; do sleep 0.01; done",
               {.limit = 500ms, .grace = 600s});
  EXPECT_TRUE(output.timedOut);
  EXPECT_EQ(output.status.text(), "exited 4");
  EXPECT_EQ(output.out.size(), 300'000U);
}

TEST_F(OutputTest, OneThatDoesNotEndIsKilledAfterTheGrace) {
  const Output output =
      outputOf("trap '' TERM; echo begun; while :; do sleep 0.01; done", {.limit = 500ms, .grace = 10ms});
  EXPECT_TRUE(output.timedOut);
  EXPECT_EQ(output.status.text(), "killed by SIGKILL");
  EXPECT_EQ(output.out, "begun\n");
}

TEST_F(OutputTest, OneThatWritesForEverIsEndedAndCut) {
  const Output output = outputOf("exec yes", {.most = 100, .limit = 1s});
  EXPECT_TRUE(output.timedOut && output.truncated);
  EXPECT_EQ(output.out.size(), 100U);
}

TEST_F(OutputTest, OneThatClosesItsStreamsAndGoesOnIsEndedAsWell) {
  for (const char* const last : {"exec sleep 3600", "trap '' TERM; while :; do sleep 0.01; done"}) {
    const Output output =
        outputOf(std::string("exec <&- >&- 2>&-; ") + last, {.limit = 200ms, .grace = 10ms});
    EXPECT_TRUE(output.timedOut);
    EXPECT_TRUE(output.status.signal().has_value());
  }
}

TEST_F(OutputTest, WhoElseHoldsTheOutputIsNotWaitedForBeyondTheLimit) {
  const Output output = outputOf("sleep 3600 & echo $!; exit 2", {.limit = 500ms, .grace = 600s});
  EXPECT_TRUE(output.timedOut);
  EXPECT_EQ(output.status.text(), "exited 2");
  EXPECT_EQ(::kill(std::stoi(output.out), SIGKILL), 0);
}

TEST_F(OutputTest, ProgramsOfOtherThreadsDoNotHoldTheOutput) {
  std::atomic<bool> done{false};
  std::thread other([&done] {
    std::list<Child> running;
    while (!done && running.size() < 300) {
      running.emplace_back(std::list<std::string>{"/bin/sleep", "3600"}).create();
    }
    for (Child& child : running) child.terminate(600s);
  });
  for (int round = 0; round < 50; ++round) {
    const Output output = outputOf("echo done", {.limit = 120s});
    EXPECT_FALSE(output.timedOut);
    EXPECT_EQ(output.out, "done\n");
  }
  done = true;
  other.join();
}

TEST_F(OutputTest, TheStreamsThatTheChildWasSetUpWithStayForItsNextStart) {
  const fs::Pipe pipe = fs::Pipe::make();
  Child child({"/bin/echo", "text"});
  child.setStdout(pipe.writeEnd);
  EXPECT_EQ(captureOutput(child).out, "text\n");
  EXPECT_TRUE(test::isCloseOnExec(pipe.writeEnd));
  child.create();
  child.wait();
  char text[5];
  EXPECT_EQ(::read(pipe.readEnd, text, sizeof text), 5);
  EXPECT_FALSE(test::isCloseOnExec(pipe.writeEnd));
  ::close(pipe.readEnd);
  ::close(pipe.writeEnd);
}

TEST_F(OutputTest, AProcessWithoutStreamsOfItsOwnGetsTheOutputAsWell) {
  const auto result = inChild([] {
    const int report = ::dup(STDOUT_FILENO);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) ::close(fd);
    const Output output = outputOf("cat; echo err >&2", {.input = "in\n"});
    Child::exit();
    const std::string text = output.out + output.err;
    return ::write(report, text.data(), text.size()) == -1 ? 1 : 0;
  });
  EXPECT_EQ(result.out, "in\nerr\n");
}

TEST_F(OutputTest, AProgramThatCannotBeStartedSaysSoInItsOutput) {
  Child child({"/no/such/program"});
  const Output output = captureOutput(child);
  EXPECT_EQ(output.status.text(), "exited 125");
  EXPECT_NE(output.err.find("/no/such/program"), std::string::npos) << output.err;
}

TEST_F(OutputTest, AnErrorInTheMiddleLeavesNoProgramAndNoDescriptor) {
  Child::init();
  const auto before = test::openDescriptors();
  Child child({"/bin/sh", "-c", "echo text; exec sleep 3600"});
  const Refuse refuse(Call::poll, ENOMEM, test::nth(2));
  EXPECT_EQ(test::raisedAs<OsError>([&] { captureOutput(child); }).errnum(), ENOMEM);
  EXPECT_EQ(child.pid(), -1);
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(test::openDescriptors(), before);
}

TEST_F(OutputTest, AProgramThatCannotBeEndedKeepsNobodyFromTheErrorInTheMiddle) {
  Child child({"/bin/sleep", "3600"});
  {
    const Refuse failing(Call::poll, ENOMEM, test::once), lasting(Call::kill, EPERM);
    EXPECT_EQ(test::raisedAs<OsError>([&] { captureOutput(child); }).errnum(), ENOMEM);
    EXPECT_EQ(lasting.struck(), 1);
  }
  EXPECT_EQ(child.terminate(600s).text(), "killed by SIGTERM");
}

TEST_F(OutputTest, OneThatEndsRightBeforeItWouldBeKilledHasItsOwnStatus) {
  std::atomic<pid_t> told{-1};
  const test::Instead<Call::kill> noting([&](pid_t pid, int signal) {
    const int result = test::real<Call::kill>(pid, signal);
    if (signal == SIGTERM) told = pid;
    return result;
  });
  const test::Instead<Call::clock_gettime> ending([&](clockid_t id, timespec* now) {
    const pid_t pid = told.exchange(-1);
    if (pid != -1) eventually([pid] { return test::real<Call::kill>(pid, 0) == -1; });
    return test::real<Call::clock_gettime>(id, now);
  });
  const Output output = outputOf("exec sleep 3600", {.limit = 100ms, .grace = 0ms});
  EXPECT_TRUE(output.timedOut);
  EXPECT_EQ(output.status.text(), "killed by SIGTERM");
}

TEST_F(OutputTest, AChildThatRunsAlreadyIsLeftAsItIs) {
  Child child({"/bin/sleep", "3600"});
  child.create();
  EXPECT_THROW(captureOutput(child), UsageError);
  EXPECT_EQ(child.terminate(600s).text(), "killed by SIGTERM");
}

TEST_F(OutputTest, WhoIsCancelledLeavesNoProgram) {
  KES_SKIP_UNDER_SANITIZERS("loses track of the stack of a thread that a cancellation unwinds");
  Child child({"/bin/sleep", "3600"});
  const int before = test::made(Call::poll);
  std::thread reader([&child] { captureOutput(child); });
  ASSERT_TRUE(eventually([before] { return test::made(Call::poll) > before; }));
  ::pthread_cancel(reader.native_handle());
  reader.join();
  EXPECT_EQ(child.pid(), -1);
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
}

}  // namespace
}  // namespace kes::proc
