#include "kespal/proc/StartFailure.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <optional>

#include "kespal/error/OsError.h"
#include "kespal/proc/ChildFixture.h"
#include "support/Calls.h"
#include "support/Sanitizer.h"

namespace kes::proc {
namespace {

using Step = StartFailure::Step;
using test::Call;
using test::Refuse;

struct StartFailureTest : ChildTest {
  /// Runs a program to its end, without its complaints.
  static Child::ExitState run(Child& child) {
    testing::internal::CaptureStderr();
    child.create();
    const Child::ExitState state = child.wait();
    testing::internal::GetCapturedStderr();
    return state;
  }

  static std::optional<StartFailure> failureOf(Child& child) {
    const int code = WEXITSTATUS(run(child).status);
    const auto failure = child.startFailure();
    EXPECT_EQ(code == 125, failure && failure->isFatal());
    return failure;
  }
};

TEST_F(StartFailureTest, AProgramThatWasStartedHasNone) {
  Child child({"/bin/true"});
  EXPECT_EQ(child.startFailure(), std::nullopt);
  EXPECT_EQ(run(child).status, 0);
  EXPECT_EQ(child.startFailure(), std::nullopt);
}

TEST_F(StartFailureTest, AProgramThatEndsAsAFailedStartDoesHasNone) {
  Child child({"/bin/sh", "-c", "exit 125"});
  EXPECT_EQ(WEXITSTATUS(run(child).status), 125);
  EXPECT_EQ(child.startFailure(), std::nullopt);
}

TEST_F(StartFailureTest, AForkedChildThatLeadsItsProcessGroupHasNone) {
  const Refuse sharing(Call::clone, EPERM);
  Child child({"/bin/true"});
  child.setNewProcessGroup(true);
  EXPECT_EQ(run(child).status, 0);
  EXPECT_EQ(child.startFailure(), std::nullopt);
}

TEST_F(StartFailureTest, AProgramThatCannotBeExecutedIsToldWithItsError) {
  for (const auto& [program, errnum] :
       {std::pair("/no/such/program", ENOENT), std::pair("/", EACCES), std::pair("kes-no-such", ENOENT)}) {
    Child child({program});
    EXPECT_EQ(failureOf(child), (StartFailure{Step::Exec, errnum})) << program;
    child.setEnvironment({"A=1"});
    EXPECT_EQ(failureOf(child), (StartFailure{Step::Exec, errnum})) << program;
  }
}

TEST_F(StartFailureTest, ADirectoryThatCannotBeEnteredIsToldWithItsError) {
  Child child({"/bin/true"});
  child.setWorkingDirectory("/no/such/directory");
  EXPECT_EQ(failureOf(child), (StartFailure{Step::Directory, ENOENT}));
  child.setWorkingDirectory("/dev/null");
  EXPECT_EQ(failureOf(child), (StartFailure{Step::Directory, ENOTDIR}));
}

TEST_F(StartFailureTest, AMaskThatCannotBeRestoredIsToldWithItsError) {
  const pid_t here = ::getpid();
  const test::Instead<Call::pthread_sigmask> refusing([here](int how, const sigset_t* set, sigset_t* before) {
    return ::getpid() != here ? EINVAL : test::real<Call::pthread_sigmask>(how, set, before);
  });
  Child child({"/bin/true"});
  EXPECT_EQ(failureOf(child), (StartFailure{Step::SignalMask, EINVAL}));
}

TEST_F(StartFailureTest, AStepThatTheProgramCanDoWithoutIsToldAndNotFatal) {
  {
    const test::Instead<Call::dup2> refusing([](int from, int to) {
      return to == STDIN_FILENO ? (errno = EBUSY, -1) : test::real<Call::dup2>(from, to);
    });
    Child child({"/bin/sh", "-c", "exit 3"});
    child.setStdin(STDIN_FILENO);
    EXPECT_EQ(WEXITSTATUS(run(child).status), 3);
    EXPECT_EQ(child.startFailure(), (StartFailure{Step::Redirection, EBUSY}));
    EXPECT_FALSE(child.startFailure()->isFatal());
  }
  const Refuse refusing(Call::setpgid, EPERM);
  Child child({"/bin/sh", "-c", "exit 3"});
  child.setNewProcessGroup(true);
  EXPECT_EQ(WEXITSTATUS(run(child).status), 3);
  EXPECT_EQ(child.startFailure(), (StartFailure{Step::ProcessGroup, EPERM}));
  EXPECT_FALSE(child.startFailure()->isFatal());
}

TEST_F(StartFailureTest, WhatEndedTheChildIsToldRatherThanWhatDidNot) {
  const Refuse refusing(Call::setpgid, EPERM);
  Child child({"/no/such/program"});
  child.setNewProcessGroup(true);
  EXPECT_EQ(failureOf(child), (StartFailure{Step::Exec, ENOENT}));
}

TEST_F(StartFailureTest, ItIsToldToANotificationToo) {
  struct Asking : Child::Notification {
    void exited(Child& child) override { told.set_value(child.startFailure()); }
    std::promise<std::optional<StartFailure>> told;
  };
  Asking asking;
  Child child({"/no/such/program"});
  child.setNotify(&asking);
  run(child);
  EXPECT_EQ(asking.told.get_future().get(), (StartFailure{Step::Exec, ENOENT}));
}

TEST_F(StartFailureTest, TheNextStartForgetsIt) {
  Child child({"/no/such/program"});
  EXPECT_NE(failureOf(child), std::nullopt);
  child.setArguments({"/bin/true"});
  EXPECT_EQ(failureOf(child), std::nullopt);
  child.setArguments({"/no/such/program"});
  EXPECT_NE(failureOf(child), std::nullopt);
  {
    const Refuse noChild(Call::fork, EAGAIN), noOther(Call::clone, EAGAIN);
    EXPECT_THROW(child.create(), OsError);
  }
  EXPECT_EQ(child.startFailure(), std::nullopt);
}

TEST_F(StartFailureTest, ItIsTheSameWhereAChildCannotShareMemory) {
  const Refuse noSharing(Call::clone, EPERM);
  Child child({"/no/such/program"});
  EXPECT_EQ(failureOf(child), (StartFailure{Step::Exec, ENOENT}));
  child.setArguments({"/bin/sh", "-c", "exit 125"});
  EXPECT_EQ(WEXITSTATUS(run(child).status), 125);
  EXPECT_EQ(child.startFailure(), std::nullopt);
}

TEST_F(StartFailureTest, AStartWithNothingToTellSharesNoMemoryForIt) {
  KES_SKIP_UNDER_SANITIZERS("forks every child, so that there is always a place to tell from");
  std::atomic<int> shared = 0;
  const test::Instead<Call::mmap> noted(
      [&](void* at, std::size_t size, int rights, int flags, int fd, off_t from) {
        if ((flags & MAP_SHARED) != 0) ++shared;
        return test::real<Call::mmap>(at, size, rights, flags, fd, from);
      });
  Child child({"/bin/true"});
  EXPECT_EQ(run(child).status, 0);
  EXPECT_EQ(shared, 0);
  child.setArguments({"/no/such/program"});
  run(child);
  EXPECT_EQ(shared, 1);
}

TEST_F(StartFailureTest, WithoutMemoryToShareThereIsNoChild) {
  Child child({"/no/such/program"});
  const Refuse noMemory(Call::mmap, ENOMEM);
  EXPECT_EQ(errorOf<OsError>([&] { child.create(); }),
            OsError(ENOMEM).text() + " @ src/os/posix/proc/Child:129 create");
  EXPECT_EQ(child.pid(), -1);
}

TEST_F(StartFailureTest, ManyChildrenThatFailAtOnceAreToldApart) {
  std::list<Child> children;
  const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  for (int number = 0; number != 40; ++number) {
    Child& child = children.emplace_back();
    child.setStderr(null);
    child.setArguments({number % 2 == 0 ? "/no/such/program" : "/bin/true"});
    if (number % 3 == 0) child.setWorkingDirectory("/dev/null");
    child.create();
  }
  ::close(null);
  int number = 0;
  for (Child& child : children) {
    child.wait();
    std::optional<StartFailure> expected;
    if (number % 2 == 0) expected = {Step::Exec, ENOENT};
    if (number % 3 == 0) expected = {Step::Directory, ENOTDIR};
    EXPECT_EQ(child.startFailure(), expected) << number;
    ++number;
  }
}

TEST_F(StartFailureTest, ItIsWrittenAsItsStepAndTheTextOfItsError) {
  const auto written = [](Step step) {
    std::ostringstream stream;
    stream << StartFailure{step, EPERM};
    return stream.str();
  };
  const std::string why = ": " + OsError(EPERM).text();
  EXPECT_EQ(written(Step::ProcessGroup), "process group" + why);
  EXPECT_EQ(written(Step::SignalMask), "signal mask" + why);
  EXPECT_EQ(written(Step::Redirection), "redirection" + why);
  EXPECT_EQ(written(Step::Groups), "supplementary groups" + why);
  EXPECT_EQ(written(Step::GroupId), "group id" + why);
  EXPECT_EQ(written(Step::UserId), "user id" + why);
  EXPECT_EQ(written(Step::WayBack), "way back to the former user" + why);
  EXPECT_EQ(written(Step::Directory), "working directory" + why);
  EXPECT_EQ(written(Step::Exec), "exec" + why);
}

}  // namespace
}  // namespace kes::proc
