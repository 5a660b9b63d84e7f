// Children and their collector: its beginning and end, and what notifications may do.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <future>
#include <iostream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "kespal/ForkPending.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/proc/ChildFixture.h"
#include "kespal/proc/Shepherd.h"
#include "support/ForkedChild.h"
#include "support/Gate.h"
#include "support/Sanitizer.h"

namespace kes::proc {
namespace {

using namespace std::chrono_literals;
using test::inChild;

TEST_F(ChildTest, CreateWhileAForkIsPendingFailsWithoutACollector) {
  ForkPending::m_pending = true;
  Child child({"/bin/true"});
  EXPECT_EQ(errorOf<RuntimeError>([&] { child.create(false); }),
            "Tried to lazy-initialize shepherd before forking @ src/proc/Child:35 init");
  ForkPending::m_pending = false;
  EXPECT_NO_THROW(child.create(false));
  child.wait(false, {});
}

TEST_F(ChildTest, APendingForkIsNoHindranceOnceThereIsACollector) {
  Child::init();
  ForkPending::m_pending = true;
  Child child({"/bin/true"});
  EXPECT_NO_THROW(Child::init());
  EXPECT_NO_THROW(child.create(false));
  ForkPending::m_pending = false;
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
  KES_SKIP_UNDER_THREAD_SANITIZER("starts no thread in the fork of a process that has some");
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

TEST_F(ChildTest, AForkMadeWhileTheCollectorsLockIsHeldStartsAndForgetsChildren) {
  KES_SKIP_UNDER_THREAD_SANITIZER("starts no thread in the fork of a process that has some");
  auto* ours = new Child({"/bin/sleep", "3600"});
  ours->create();
  test::Gate held, over;
  std::thread holder([&] {
    const Shepherd::Guard guard(Child::m_shepherd->condition());
    held.open();
    over.pass();
  });
  held.pass();
  const auto startOne = [] {
    Child theirs({"/bin/sh", "-c", "exit 4"});
    theirs.create();
    return WEXITSTATUS(theirs.wait().status);
  };
  const auto result = inChild([&] {
    std::cout << errorOf<NoSuchProcessError>([&] { ours->kill(); }).substr(0, 15) << '\n'
              << errorOf<RuntimeError>([&] { ours->wait(); }).substr(0, 29) << '\n'
              << startOne();
    const auto deeper = inChild([&] {
      delete ours;
      return startOne();
    });
    Child::exit();
    return deeper.exitCode();
  });
  over.open();
  holder.join();
  EXPECT_EQ(result.exitCode(), 4) << result.err;
  EXPECT_EQ(result.out, "No such process\nThere is no process collector\n4");
  ours->kill();
  ours->wait();
  delete ours;
}

TEST_F(ChildTest, AForkMadeWhileAnotherThreadStartsItsFirstChildCanStartOne) {
  KES_SKIP_UNDER_SANITIZERS("leaves a lock of its own taken in the fork of a process with threads");
  std::atomic<bool> done{false};
  std::thread other([&done] {
    while (!done) {
      Child::init();
      Child::exit();
    }
  });
  int failed = 0;
  for (int round = 0; round < 50; ++round) {
    const auto result = inChild([] {
      Child child({"/bin/sh", "-c", "exit 4"});
      child.create();
      return WEXITSTATUS(child.wait().status);
    });
    if (result.exitCode() != 4) ++failed;
  }
  done = true;
  other.join();
  EXPECT_EQ(failed, 0);
}

TEST_F(ChildTest, TheLockOfTheFirstStartOutlivesTheEndOfTheProcess) {
  const auto result = inChild([]() -> int {
    Child::m_init_lock.lock();  // a lock that is destroyed while it is held says so
    std::exit(3);
  });
  EXPECT_EQ(result.exitCode(), 3);
  EXPECT_EQ(result.err, "");
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

TEST_F(ChildTest, ANotificationThatForksEndsInTheChildWithoutAnyWord) {
  KES_SKIP_UNDER_SANITIZERS("watches how a thread ends a process");
  const auto result = inChild([] {
    struct Forker : Child::Notification {
      void exited(Child&) override {
        const pid_t fork = ::fork();
        if (fork == 0) {
          ::alarm(120);
          return;
        }
        int status = -1;
        ::waitpid(fork, &status, 0);
        ended.set_value(status);
      }
      std::promise<int> ended;
    } forker;
    struct Watcher : Child::Notification {
      void exited(Child&) override {
        std::cerr << "ended in " << (::getpid() == parent ? "the parent\n" : "the child\n");
      }
      void released(Child&) override { std::cerr << "released\n"; }
      const pid_t parent = ::getpid();
    } watcher;
    Child running({"/bin/sleep", "3600"}), first({"/bin/true"});
    running.setNotify(&watcher);
    first.setNotify(&forker);
    running.create(false);
    first.create(false);
    const int status = forker.ended.get_future().get();
    running.kill();
    running.wait(false, {});
    Child::exit();
    return status == 0 ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.err, "ended in the parent\n");
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

TEST_F(ChildTest, ForeignExceptionsOfNotificationsAreReportedTooAndTheCollectorCarriesOn) {
  const auto result = inChild([] {
    struct Thrower : Child::Notification {
      void exited(Child&) override {
        if (++calls == 1) throw std::runtime_error("a standard one");
        throw 42;
      }
      int calls = 0;
    } thrower;
    for (int round = 0; round < 2; ++round) {
      Child child({"/bin/true"});
      child.setNotify(&thrower);
      child.create();
      child.wait();
    }
    Child last({"/bin/sh", "-c", "exit 2"});
    last.create();
    const int code = WEXITSTATUS(last.wait().status);
    Child::exit();
    return code;
  });
  EXPECT_EQ(result.exitCode(), 2);
  EXPECT_EQ(result.err,
            "checkCB: callback has thrown an exception:\na standard one\n"
            "checkCB: callback has thrown an exception:\nan unknown exception\n");
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
