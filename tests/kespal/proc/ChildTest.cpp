#include "kespal/proc/Child.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <iostream>
#include <sstream>

#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/File.h"
#include "kespal/kespal.h"
#include "kespal/proc/ChildFixture.h"
#include "kespal/signal/Mask.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/Process.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

namespace kes::proc {
namespace {

using namespace std::chrono_literals;
using test::inChild;
using test::TempDir;

TEST_F(ChildTest, AProgramIsStartedAndItsExitCodeCollected) {
  Child child({"/bin/sh", "-c", "exit 7"});
  EXPECT_EQ(child.pid(), -1);
  child.create(false);
  EXPECT_GT(child.pid(), 0);
  const Child::ExitState state = child.wait(false, {});
  EXPECT_TRUE(state.finished);
  EXPECT_EQ(WEXITSTATUS(state.status), 7);
  EXPECT_EQ(text(state), "finished: 1\nkilled: 0\ncode: 7");
  EXPECT_EQ(child.pid(), -1);
}

TEST_F(ChildTest, CreateWithoutArgumentsFailsBeforeAnyFork) {
  Child child;
  EXPECT_EQ(errorOf<UsageError>([&] { child.create(false); }),
            "No executable specified @ src/os/posix/proc/Child:83 create");
  EXPECT_EQ(Child::m_shepherd, nullptr);
}

TEST_F(ChildTest, ADescriptorThatIsNotOpenIsRefusedBeforeAnyFork) {
  const std::function<void(Child&)> settings[] = {[](Child& child) { child.setStdin(999); },
                                                  [](Child& child) { child.setStdout(999); },
                                                  [](Child& child) { child.setStderr(999); }};
  for (const auto& set : settings) {
    Child child({"/bin/true"});
    set(child);
    EXPECT_EQ(errorOf<OsError>([&] { child.create(false); }),
              OsError(EBADF).text() + " @ src/os/posix/proc/Child:97 create");
  }
  EXPECT_EQ(Child::m_shepherd, nullptr);
}

TEST_F(ChildTest, AProgramThatDoesNotExistIsAChildThatEndsWith125) {
  const auto result = inChild([] {
    Child child({"/no/such/program", "argument"});
    child.create(false);
    const auto state = child.wait(false, {});
    std::cout << state;
    Child::exit();
    return 0;
  });
  EXPECT_EQ(result.out, "finished: 1\nkilled: 0\ncode: 125");
  EXPECT_THAT(result.err,
              testing::MatchesRegex(
                  "In child process [0-9]+ \\(/no/such/program\\):\n\n#1\\)\n\tException occured at "
                  "\"src/os/posix/proc/Child:318 \\(create\\)\"\n\t\n\tSystem/Library call error: No such "
                  "file or directory \\(2\\)\n\n"));
}

/// The exit code of a program that cannot be started, with such a standard error; -1 when a signal ended it.
int exitCodeWithErrorsTo(int fd) {
  Child child({"/no/such/program"});
  child.setStderr(fd);
  child.create(false);
  const int status = child.wait(false, {}).status;
  Child::exit();
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(ChildTest, AProgramThatDoesNotExistEndsWith125AlsoWhenNobodyReadsWhy) {
  const auto result = inChild([] {
    int ends[2];
    if (::pipe(ends) != 0) return -1;
    ::close(ends[0]);
    return exitCodeWithErrorsTo(ends[1]);
  });
  EXPECT_EQ(result.exitCode(), 125);
}

TEST_F(ChildTest, AProgramThatDoesNotExistEndsWith125AlsoWhenTheFileForItTakesNoMore) {
  const TempDir dir;
  const auto result = inChild([&dir] {
    const int full = ::open((dir / "full").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const ::rlimit nothing{0, 0};
    if (::setrlimit(RLIMIT_FSIZE, &nothing) != 0) return -1;
    std::signal(SIGXFSZ, SIG_DFL);
    return exitCodeWithErrorsTo(full);
  });
  EXPECT_EQ(result.exitCode(), 125);
}

TEST_F(ChildTest, AProgramThatMayNotBeExecutedIsAChildThatEndsWith125) {
  const TempDir dir;
  test::writeFile(dir / "plain", "no program");
  const auto result = inChild([&] {
    Child child({dir / "plain"});
    child.create(false);
    std::cout << child.wait(false, {});
    Child::exit();
    return 0;
  });
  EXPECT_EQ(result.out, "finished: 1\nkilled: 0\ncode: 125");
  EXPECT_THAT(result.err, testing::HasSubstr("Permission denied (13)"));
}

TEST_F(ChildTest, AChildKilledByASignalPrintsNoCode) {
  Child child({"/bin/sleep", "3600"});
  child.create(false);
  child.kill(SIGKILL);
  EXPECT_EQ(text(child.wait(false, {})), "finished: 1\nkilled: 1");
}

TEST_F(ChildTest, TheTextOfAnExitStateFollowsItsStatus) {
  EXPECT_EQ(text({0, false}), "finished: 0\nkilled: 0");
  EXPECT_EQ(text({9, false}), "finished: 0\nkilled: 1");
  EXPECT_EQ(text({0, true}), "finished: 1\nkilled: 0\ncode: 0");
  EXPECT_EQ(text({255 << 8, true}), "finished: 1\nkilled: 0\ncode: 255");
  EXPECT_EQ(text({15, true}), "finished: 1\nkilled: 1");
  EXPECT_EQ(text({15 | 0x80, true}), "finished: 1\nkilled: 1");
  EXPECT_EQ(text({(SIGSTOP << 8) | 0x7f, true}), "finished: 1\nkilled: 0\ncode: 255");
}

TEST_F(ChildTest, ATimedWaitThatExpiresKeepsTheChildForALaterWait) {
  Child child({"/bin/sleep", "3600"});
  child.create(false);
  const pid_t pid = child.pid();
  EXPECT_FALSE(child.wait(true, 0ms).finished);
  EXPECT_FALSE(child.wait(true, 20ms).finished);
  EXPECT_FALSE(child.wait(true, -1500ms).finished);
  EXPECT_EQ(child.pid(), pid);
  child.term(SIGTERM);
  const auto state = child.wait(true, 60s);
  EXPECT_TRUE(state.finished);
  EXPECT_EQ(state.status, SIGTERM);
}

TEST_F(ChildTest, ATimeOutThatNoClockCanTellIsNone) {
  for (const auto timeout : {time::Milliseconds::max(), time::Milliseconds(5'000'000'000'000)}) {
    Child child({"/bin/sleep", "3600"});
    child.create();
    auto waiting = std::async(std::launch::async, [&] { return child.wait(true, timeout); });
    EXPECT_EQ(waiting.wait_for(50ms), std::future_status::timeout);
    child.term();
    const auto state = waiting.get();
    EXPECT_TRUE(state.finished);
    EXPECT_EQ(state.status, SIGTERM);
  }
}

TEST_F(ChildTest, ATimeOutFarInThePastDoesNotWait) {
  Child child({"/bin/sleep", "3600"});
  child.create();
  EXPECT_FALSE(child.wait(true, time::Milliseconds::min()).finished);
  EXPECT_FALSE(child.wait(true, time::Milliseconds(-4'000'000'000'000)).finished);
  child.kill();
  child.wait();
}

TEST_F(ChildTest, CreateWhileAChildRunsIsAUsageErrorAndThatChildRunsOn) {
  Child child({"/bin/sleep", "3600"});
  child.create();
  const pid_t pid = child.pid();
  EXPECT_THAT(errorOf<UsageError>([&] { child.create(); }),
              testing::StartsWith("Can't start another program: the child was not waited for @ "));
  EXPECT_EQ(child.pid(), pid);
  child.term();
  EXPECT_EQ(child.wait().status, SIGTERM);
  EXPECT_NO_THROW(child.create());
  child.kill();
  child.wait();
}

TEST_F(ChildTest, WaitingWithoutAChildIsAUsageError) {
  Child child({"/bin/true"});
  const std::string expected = "tried to wait on non-existent child @ src/os/posix/proc/Child:340 wait";
  EXPECT_EQ(errorOf<UsageError>([&] { child.wait(false, {}); }), expected);
  child.create(false);
  child.wait(false, {});
  EXPECT_EQ(errorOf<UsageError>([&] { child.wait(false, {}); }), expected);
}

TEST_F(ChildTest, AChildThatEndsBeforeAnybodyWaitsLeavesItsStatus) {
  Notified notified;
  Child child({"/bin/sh", "-c", "exit 3"});
  child.setNotify(&notified);
  child.create(false);
  ASSERT_EQ(notified.ended.get_future().get(), &child);
  EXPECT_EQ(WEXITSTATUS(child.wait(true, 60s).status), 3);
}

TEST_F(ChildTest, SignallingWithoutAChildRaisesNoSuchProcessError) {
  Child child({"/bin/true"});
  EXPECT_THROW(child.kill(SIGKILL), NoSuchProcessError);
  EXPECT_THROW(child.term(SIGTERM), NoSuchProcessError);
}

TEST_F(ChildTest, SignallingAChildThatWasReapedRaisesNoSuchProcessError) {
  Notified notified;
  Child child({"/bin/true"});
  child.setNotify(&notified);
  child.create(false);
  notified.ended.get_future().wait();
  EXPECT_NE(child.pid(), -1);
  EXPECT_THROW(child.kill(SIGKILL), NoSuchProcessError);
  EXPECT_THROW(child.term(0), NoSuchProcessError);
}

TEST_F(ChildTest, SignalsReachTheChild) {
  test::TestPipe pipe;
  Child child({"/bin/sh", "-c", "trap 'exit 5' USR1; echo ready; while :; do sleep 0.01; done"});
  child.setStdout(pipe.writer);
  child.create(false);
  char ready = 0;
  ASSERT_EQ(::read(pipe.reader, &ready, 1), 1);
  child.term(SIGUSR1);
  EXPECT_EQ(child.wait(false, {}).status, 5 << 8);
}

TEST_F(ChildTest, AStoppedChildHasNotEnded) {
  Child child({"/bin/sleep", "3600"});
  child.create(false);
  child.kill(SIGSTOP);
  EXPECT_TRUE(test::eventually([&child] {
    return test::readFile("/proc/" + std::to_string(child.pid()) + "/stat").find(") T ") != std::string::npos;
  }));
  EXPECT_FALSE(child.wait(true, 20ms).finished);
  child.kill(SIGCONT);
  child.kill(SIGKILL);
  EXPECT_EQ(child.wait(false, {}).status, SIGKILL);
}

TEST_F(ChildTest, ASignalThatDoesNotExistIsRefusedAndTheChildRunsOn) {
  Child child({"/bin/sleep", "3600"});
  child.create(false);
  EXPECT_THAT(errorOf<OsError>([&] { child.kill(1000); }), testing::StartsWith(OsError(EINVAL).text()));
  EXPECT_FALSE(child.wait(true, 0ms).finished);
  child.kill();
  child.wait();
}

TEST_F(ChildTest, TheNotificationCannotBeChangedWhileTheChildRuns) {
  Notified notified;
  Child child({"/bin/sleep", "3600"});
  child.create(false);
  EXPECT_EQ(errorOf<RuntimeError>([&] { child.setNotify(&notified); }),
            "Can't set notify callback if child is already running @ src/proc/Child:57 setNotify");
  child.kill();
  child.wait();
  EXPECT_NO_THROW(child.setNotify(&notified));
}

TEST_F(ChildTest, AProgramInPlaceTakesThisProcess) {
  const auto result = inChild([] {
    Child child({"/bin/sh", "-c", "echo $$"});
    std::cout << ::getpid() << ' ' << std::flush;
    child.create(true);
    return 1;
  });
  std::istringstream pids(result.out);
  int before = 0, after = 1;
  pids >> before >> after;
  EXPECT_EQ(before, after);
  EXPECT_EQ(result.exitCode(), 0);
}

TEST_F(ChildTest, AProgramInPlaceGetsTheStartUpMaskTheStreamsAndNothingThatTheLibraryOpened) {
  const auto result = inChild([] {
    signal::Mask::call({SIGUSR1, SIGTERM}, SIG_BLOCK);
    fs::File opened;
    opened.open("/dev/null", fs::File::READ);
    Child child(
        {"/bin/sh", "-c", "grep SigBlk /proc/self/status; test -e /proc/$$/fd/$OPENED || echo closed"});
    ::setenv("OPENED", std::to_string(opened.fd()).c_str(), 1);
    child.setStdout(STDERR_FILENO);
    child.setNewProcessGroup(true);  // for forked children alone
    child.create(true);
    return 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "SigBlk:\t0000000000000000\nclosed\n");
}

TEST_F(ChildTest, AProgramInPlaceIsNotEndedByASignalThatTheLibraryHeldBack) {
  KES_SKIP_UNDER_THREAD_SANITIZER("handles every signal itself");
  const auto result = inChild([] {
    const KesPal runtime(false, false, Locale::System, nullptr);
    for (const int signal : {SIGPIPE, SIGUSR1, SIGUSR2}) ::raise(signal);
    ::kill(::getpid(), SIGUSR2);
    Child({"/bin/sh", "-c", "exit 3"}).create(true);
    return 1;
  });
  EXPECT_EQ(result.signal(), 0);
  EXPECT_EQ(result.exitCode(), 3);
}

TEST_F(ChildTest, ASignalThatTheProcessHeldBackByItselfStaysPendingInAProgramInPlace) {
  const auto result = inChild([] {
    signal::Mask::call({SIGUSR1}, SIG_BLOCK);
    const KesPal runtime(false, false, Locale::System, nullptr);
    ::kill(::getpid(), SIGUSR1);
    Child({"grep", "ShdPnd", "/proc/self/status"}).create(true);
    return 1;
  });
  EXPECT_EQ(result.out, "ShdPnd:\t0000000000000200\n");
}

TEST_F(ChildTest, AProgramInPlaceThatCannotBeStartedEndsThisProcessWith125) {
  const auto result = inChild([] {
    Child({"/no/such/program"}).create(true);
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 125);
  EXPECT_THAT(result.err, testing::StartsWith("In child process "));
}

TEST_F(ChildTest, AProgramInPlaceThatCannotBeStartedEndsThisProcessWith125AlsoWhenNobodyReadsWhy) {
  const auto result = inChild([] {
    int ends[2];
    if (::pipe(ends) != 0 || ::dup2(ends[1], STDERR_FILENO) == -1) return -1;
    ::close(ends[0]);
    Child({"/no/such/program"}).create(true);
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 125);
}

TEST_F(ChildTest, DestroyingAChildNeitherWaitsForItNorSignalsIt) {
  pid_t pid = -1;
  {
    Child child({"/bin/sleep", "3600"});
    child.create(false);
    pid = child.pid();
  }
  EXPECT_EQ(::kill(pid, 0), 0);
  ::kill(pid, SIGKILL);
}

}  // namespace
}  // namespace kes::proc
