#include "kespal/proc/Child.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <future>
#include <iostream>
#include <set>
#include <sstream>

#include "kespal/State.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/File.h"
#include "kespal/signal/Mask.h"
#include "kespal/time/Clock.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace kes::proc {
namespace {

using namespace std::chrono_literals;
using test::inChild;
using test::TempDir;

/// Runs a shell command to its end with its output in a file; the file's content.
std::string outputOf(
    const std::string& command, const std::function<void(Child&)>& setUp = [](Child&) {}) {
  const TempDir dir;
  const int out = ::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  Child child({"/bin/sh", "-c", command});
  child.setStdout(out);
  setUp(child);
  child.create(false);
  child.wait(false, {});
  ::close(out);
  return test::readFile(dir / "out");
}

class ChildTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { time::ClockBase::init(); }
  void TearDown() override { Child::exit(); }
};

std::string text(const Child::ExitState& state) {
  std::ostringstream stream;
  stream << state;
  return stream.str();
}

template <typename Error>
std::string errorOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const Error& error) {
    return error.text() + " @ " + error.file() + ':' + std::to_string(error.line()) + ' ' + error.function();
  }
  return "nothing was raised";
}

/// The descriptors of this process that an exec keeps.
std::set<std::string> inheritedDescriptors() {
  std::set<std::string> kept;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const std::string fd = entry.path().filename();
    const int flags = ::fcntl(std::stoi(fd), F_GETFD);
    if (flags != -1 && (flags & FD_CLOEXEC) == 0) kept.insert(fd);
  }
  return kept;
}

struct Notified : Child::Notification {
  void exited(Child& child) override { ended.set_value(&child); }
  std::promise<Child*> ended;
};

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

TEST_F(ChildTest, StreamsAreRedirected) {
  const TempDir dir;
  test::writeFile(dir / "in", "from the file\n");
  const int in = ::open((dir / "in").c_str(), O_RDONLY | O_CLOEXEC);
  const int err = ::open((dir / "err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  EXPECT_EQ(outputOf("cat; echo oops >&2",
                     [&](Child& child) {
                       child.setStdin(in);
                       child.setStderr(err);
                     }),
            "from the file\n");
  EXPECT_EQ(test::readFile(dir / "err"), "oops\n");
  ::close(in);
  ::close(err);
}

TEST_F(ChildTest, StreamsCanBePipes) {
  test::TestPipe to, from;
  Child child({"/bin/cat"});
  child.setStdin(to.reader);
  child.setStdout(from.writer);
  child.create(false);
  to.closeReader();
  from.closeWriter();
  to.write("through both\n");
  to.closeWriter();
  char text[64] = "";
  EXPECT_EQ(::read(from.reader, text, sizeof text - 1), 13);
  EXPECT_STREQ(text, "through both\n");
  EXPECT_EQ(child.wait(false, {}).status, 0);
}

TEST_F(ChildTest, StreamsAreInstalledOneAfterTheOtherOutputFirst) {
  const auto result = inChild([] {
    Child child({"/bin/sh", "-c", "echo out; echo err >&2"});
    child.setStdout(STDERR_FILENO);
    child.setStderr(STDOUT_FILENO);  // which is the error stream by then
    child.create(false);
    child.wait(false, {});
    Child::exit();
    return 0;
  });
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "out\nerr\n");
}

TEST_F(ChildTest, TheErrorStreamCanBeTheNewOutputStream) {
  EXPECT_EQ(outputOf("echo out; echo err >&2", [](Child& child) { child.setStderr(STDOUT_FILENO); }),
            "out\nerr\n");
}

TEST_F(ChildTest, TheCloseOnExecFlagOfAHandedInDescriptorIsClearedAndStaysSo) {
  const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  Child child({"/bin/true"});
  child.setStdout(null);
  child.create(false);
  child.wait(false, {});
  EXPECT_EQ(::fcntl(null, F_GETFD) & FD_CLOEXEC, 0);
  ::close(null);
}

TEST_F(ChildTest, AChildGetsTheThreeStreamsAndNothingThatTheLibraryOpened) {
  const TempDir dir;
  const int out = ::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  Child child({"/bin/ls", "/proc/self/fd"});
  child.setStdout(out);
  child.create(false);
  child.wait(false, {});
  std::set<std::string> fds;
  std::istringstream numbers(test::readFile(dir / "out"));
  for (std::string fd; numbers >> fd;) fds.insert(fd);
  std::set<std::string> expected = inheritedDescriptors();
  EXPECT_TRUE(expected.contains(std::to_string(out)));
  for (const std::string& fd : expected) EXPECT_EQ(fds.erase(fd), 1U) << fd;
  EXPECT_EQ(fds.size(), 1U) << "only the one that ls lists the directory through";
  ::close(out);
}

TEST_F(ChildTest, WithoutAnEnvironmentTheChildInheritsOurs) {
  ::setenv("KES_TEST_INHERITED", "yes", 1);
  EXPECT_EQ(outputOf("echo $KES_TEST_INHERITED"), "yes\n");
}

TEST_F(ChildTest, AnEnvironmentReplacesOurs) {
  ::setenv("KES_TEST_INHERITED", "yes", 1);
  EXPECT_EQ(outputOf("echo $KES_TEST_INHERITED$OWN", [](Child& child) { child.setEnvironment({"OWN=1"}); }),
            "1\n");
}

TEST_F(ChildTest, AProgramWithoutSlashIsSearchedOnPathWithAndWithoutAnEnvironment) {
  for (const std::list<std::string>& environment : {std::list<std::string>{}, {"A=b"}}) {
    Child child({"true"});
    child.setEnvironment(environment);
    child.create(false);
    EXPECT_EQ(text(child.wait(false, {})), "finished: 1\nkilled: 0\ncode: 0");
  }
}

TEST_F(ChildTest, TheFileFoundOnPathBecomesTheFirstArgumentWhenThereIsAnEnvironment) {
  const TempDir dir;
  test::writeFile(dir / "probe", "#!/bin/sh\necho $0\n");
  std::filesystem::permissions(dir / "probe", std::filesystem::perms(0755));
  ::setenv("PATH", ("/no/such/directory::" + dir.path() + ":/bin:/usr/bin").c_str(), 1);
  const int out = ::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  Child child({"probe"});
  child.setEnvironment({"A=b"});
  child.setStdout(out);
  child.create(false);
  child.wait(false, {});
  ::close(out);
  EXPECT_EQ(test::readFile(dir / "out"), (dir / "probe") + "\n");
}

TEST_F(ChildTest, AProgramThatIsNowhereOnPathEndsWith125AndEnoent) {
  const auto result = inChild([] {
    Child child({"kes-no-such-program"});
    child.setEnvironment({"A=b"});
    child.create(false);
    const auto state = child.wait(false, {});
    Child::exit();
    return WEXITSTATUS(state.status);
  });
  EXPECT_EQ(result.exitCode(), 125);
  EXPECT_THAT(result.err, testing::HasSubstr("No such file or directory (2)"));
}

TEST_F(ChildTest, TheWorkingDirectoryIsTheChildsOnly) {
  const std::string before = std::filesystem::current_path();
  EXPECT_EQ(outputOf("pwd", [](Child& child) { child.setWorkingDirectory("/usr"); }), "/usr\n");
  EXPECT_EQ(std::filesystem::current_path(), before);
}

TEST_F(ChildTest, AWorkingDirectoryThatCannotBeEnteredEndsTheChildWith125) {
  const auto result = inChild([] {
    Child child({"/bin/true"});
    child.setWorkingDirectory("/no/such/directory");
    child.create(false);
    const auto state = child.wait(false, {});
    Child::exit();
    return WEXITSTATUS(state.status);
  });
  EXPECT_EQ(result.exitCode(), 125);
  EXPECT_THAT(result.err,
              testing::MatchesRegex("In child process [0-9]+ \\(/bin/true\\):\n\nCannot change working "
                                    "directory:\n\n#1\\)\n\tException occured at (.|\n)*setCWD(.|\n)*"
                                    "\"/no/such/directory\"(.|\n)*"));
}

TEST_F(ChildTest, AChildCanLeadANewProcessGroup) {
  const auto groupOf = [](bool own) {
    return outputOf("ps -o pgid= -p $$; echo $$", [own](Child& child) { child.setNewProcessGroup(own); });
  };
  std::istringstream own(groupOf(true)), ours(groupOf(false));
  int group = 0, pid = 0;
  own >> group >> pid;
  EXPECT_EQ(group, pid);
  ours >> group >> pid;
  EXPECT_EQ(group, ::getpgrp());
}

TEST_F(ChildTest, EnteringANewProcessGroupThatFailsIsToldAndNoMore) {
  const auto result = inChild([] {
    ::setsid();
    enterNewProcessGroup();
    return 4;
  });
  EXPECT_EQ(result.exitCode(), 4);
  EXPECT_EQ(result.err, "Failed to set new process group. Errno = " + std::to_string(EPERM) + "\n");
}

TEST_F(ChildTest, AChildGetsTheSignalMaskThatThisProcessStartedWith) {
  const auto result = inChild([] {
    signal::Mask::call({SIGUSR1, SIGTERM}, SIG_BLOCK);
    std::cout << outputOf("grep SigBlk /proc/self/status");
    Child::exit();
    return 0;
  });
  EXPECT_EQ(result.out, "SigBlk:\t0000000000000000\n");
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

TEST_F(ChildTest, AProgramInPlaceThatCannotBeStartedEndsThisProcessWith125) {
  const auto result = inChild([] {
    Child({"/no/such/program"}).create(true);
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 125);
  EXPECT_THAT(result.err, testing::StartsWith("In child process "));
}

TEST_F(ChildTest, CreateWhileAForkIsPendingFailsWithoutACollector) {
  State::m_fork_pending = true;
  Child child({"/bin/true"});
  EXPECT_EQ(errorOf<RuntimeError>([&] { child.create(false); }),
            "Tried to lazy-initialize shepherd before forking @ src/proc/Child:35 init");
  State::m_fork_pending = false;
  EXPECT_NO_THROW(child.create(false));
  child.wait(false, {});
}

TEST_F(ChildTest, APendingForkIsNoHindranceOnceThereIsACollector) {
  Child::init();
  State::m_fork_pending = true;
  Child child({"/bin/true"});
  EXPECT_NO_THROW(Child::init());
  EXPECT_NO_THROW(child.create(false));
  State::m_fork_pending = false;
  EXPECT_EQ(child.wait(false, {}).status, 0);
}

TEST_F(ChildTest, ExitEndsTheCollectorAndTheNextChildMakesANewOne) {
  Child::init();
  ASSERT_NE(Child::m_shepherd, nullptr);
  Child::exit();
  EXPECT_EQ(Child::m_shepherd, nullptr);
  EXPECT_NO_THROW(Child::exit());
  Child child({"/bin/true"});
  child.create(false);
  EXPECT_TRUE(child.wait(false, {}).finished);
  Child::exit();
}

TEST_F(ChildTest, AForkOfThisProcessMakesACollectorOfItsOwn) {
  Child ours({"/bin/true"});
  ours.create(false);
  ours.wait(false, {});
  ASSERT_NE(Child::m_shepherd, nullptr);
  const auto result = inChild([] {
    Child theirs({"/bin/sh", "-c", "exit 4"});
    theirs.create(false);
    const int code = WEXITSTATUS(theirs.wait(false, {}).status);
    Child::exit();
    return code;
  });
  EXPECT_EQ(result.exitCode(), 4);
}

TEST_F(ChildTest, ANotificationMayWaitForItsChildAndDeleteIt) {
  struct Cleaner : Child::Notification {
    void exited(Child& child) override {
      const int status = child.wait(false, {}).status;
      delete &child;
      ended.set_value(status);
    }
    std::promise<int> ended;
  } cleaner;
  auto* child = new Child({"/bin/sh", "-c", "exit 6"});
  child->setNotify(&cleaner);
  child->create(false);
  EXPECT_EQ(WEXITSTATUS(cleaner.ended.get_future().get()), 6);
}

TEST_F(ChildTest, ANotificationMayStartAnotherChild) {
  struct Next : Child::Notification {
    void exited(Child&) override {
      second.create(false);
      started.set_value();
    }
    Child second{{"/bin/sh", "-c", "exit 9"}};
    std::promise<void> started;
  } next;
  Child first({"/bin/true"});
  first.setNotify(&next);
  first.create(false);
  next.started.get_future().wait();
  EXPECT_EQ(WEXITSTATUS(next.second.wait(true, 60s).status), 9);
}

TEST_F(ChildTest, ANotificationThatThrowsIsReportedAndTheCollectorCarriesOn) {
  const auto result = inChild([] {
    struct Thrower : Child::Notification {
      void exited(Child&) override { raiseAt(KES_HERE, RuntimeError("from the notification")); }
    } thrower;
    Child first({"/bin/true"}), second({"/bin/sh", "-c", "exit 2"});
    first.setNotify(&thrower);
    first.create(false);
    first.wait(false, {});
    second.create(false);
    const int code = WEXITSTATUS(second.wait(false, {}).status);
    Child::exit();
    return code;
  });
  EXPECT_EQ(result.exitCode(), 2);
  EXPECT_THAT(result.err, testing::StartsWith("checkCB: callback has thrown an exception:\n\n#1)\n"));
  EXPECT_THAT(result.err, testing::HasSubstr("Runtime error occured. from the notification"));
}

TEST_F(ChildTest, TheCollectorCannotBeEndedFromANotification) {
  const auto result = inChild([] {
    struct Ender : Child::Notification {
      void exited(Child&) override { Child::exit(); }
    } ender;
    Child child({"/bin/true"});
    child.setNotify(&ender);
    child.create(false);
    child.wait(false, {});
    const bool alive = Child::m_shepherd != nullptr;
    Child::exit();
    return alive ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_THAT(result.err, testing::HasSubstr("cannot be ended from its own thread"));
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

TEST_F(ChildTest, TheProgramsOfAProcessThatIgnoredSigchldAreCollectedAllTheSame) {
  const auto result = inChild([] {
    ::signal(SIGCHLD, SIG_IGN);
    Child child({"/bin/sh", "-c", "exit 8"});
    child.create(false);
    return WEXITSTATUS(child.wait(true, 60s).status);
  });
  EXPECT_EQ(result.exitCode(), 8);
}

}  // namespace
}  // namespace kes::proc
