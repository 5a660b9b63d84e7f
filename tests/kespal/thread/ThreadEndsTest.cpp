// Ends that must neither hang nor crash.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <thread>
#include <vector>

#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/thread/NativeThreads.h"
#include "kespal/thread/Thread.h"
#include "support/Calls.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/Gate.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"
#include "sys/AtEnd.h"

namespace kes::thread {
namespace {

using namespace test;

using Body = std::function<void()>;

class TestThread : public BasicThread {
 public:
  explicit TestThread(Body& body, bool detached = false)
      : BasicThread([](void* argument) { (*static_cast<Body*>(argument))(); }, "ends", &body, detached, 0) {}
};

TEST(ThreadEndsTest, SeveralThreadsMayJoinOneThreadAtOnce) {
  for (int i = 0; i < 100; ++i) {
    Gate gate;
    Body body = [&] { gate.pass(); };
    TestThread thread(body);
    thread.run();
    std::vector<std::thread> joiners;
    for (int j = 0; j < 4; ++j) joiners.emplace_back([&] { thread.join(); });
    gate.open();
    for (std::thread& joiner : joiners) joiner.join();
    EXPECT_EQ(thread.state(), BasicThread::BURIED);
  }
}

TEST(ThreadEndsTest, OnlyOneOfSeveralJoinersAsksTheSystem) {
  Gate gate;
  Body body = [&] { gate.pass(); };
  TestThread thread(body);
  thread.run();
  const int before = made(Call::pthread_join);
  std::vector<std::thread> joiners;
  for (int j = 0; j < 4; ++j) joiners.emplace_back([&] { thread.join(); });
  EXPECT_TRUE(eventually([&] { return made(Call::pthread_join) == before + 1; }));
  gate.open();
  for (std::thread& joiner : joiners) joiner.join();
  EXPECT_EQ(made(Call::pthread_join), before + 1);
}

TEST(ThreadEndsTest, AJoinerWhoseSystemCallFailsHandsOverToTheNext) {
  Gate gate;
  Body body = [&] { gate.pass(); };
  TestThread thread(body);
  thread.run();
  std::atomic<int> failed{0};
  const Refuse fault(Call::pthread_join, EINVAL, once);
  std::vector<std::thread> joiners;
  for (int j = 0; j < 3; ++j) {
    joiners.emplace_back([&] {
      try {
        thread.join();
      } catch (const OsError&) {
        ++failed;
      }
    });
  }
  EXPECT_TRUE(eventually([&] { return failed == 1; }));
  gate.open();
  for (std::thread& joiner : joiners) joiner.join();
  EXPECT_EQ(failed, 1);
  EXPECT_EQ(thread.state(), BasicThread::BURIED);
}

TEST(ThreadEndsTest, AJoinerOfARunThatWasBuriedMeanwhileIsNotLeftToTheNextRun) {
  for (int i = 0; i < 200; ++i) {
    Body body = [] {};
    TestThread thread(body);
    thread.run();
    std::vector<std::thread> joiners;
    for (int j = 0; j < 3; ++j) joiners.emplace_back([&] { thread.join(); });
    thread.join();
    try {
      thread.run();
    } catch (const UsageError&) {
      // One of the late joiners buried it between its creation and the go.
    }
    for (std::thread& joiner : joiners) joiner.join();
    thread.join();
  }
}

TEST(ThreadEndsTest, WhoKillsAThreadDoesNotWaitForTheNextRunOfIt) {
  KES_SKIP_UNDER_SANITIZERS("does not follow a thread that is cancelled");
  Gate gate, unlocked;
  std::atomic<bool> first{true};
  Body body = [&] {
    if (!first.exchange(false)) return gate.pass();
    const sys::AtEnd untilUnlocked([&] { unlocked.pass(); });  // its own end takes the lock, too
    for (;;) ::pause();
  };
  TestThread thread(body);
  thread.run();
  ASSERT_TRUE(eventually([&] { return !first; }));  // it needs no lock any more
  std::optional<After> beforeJoining;
  const After cancelled(Call::pthread_cancel, [&] {
    beforeJoining.emplace(Call::pthread_mutex_unlock, [&] {
      unlocked.open();
      thread.join();
      thread.run();
    });
  });
  std::atomic<bool> killed{false};
  std::thread killer([&] {
    thread.kill();
    killed = true;
  });
  EXPECT_TRUE(eventually([&] { return killed.load(); }));
  EXPECT_NE(thread.state(), BasicThread::BURIED);
  gate.open();
  killer.join();
  thread.join();
}

TEST(ThreadEndsTest, ARunWhoseSignalIsRefusedLeavesAHeldThread) {
  bool ran = false;
  Body body = [&] { ran = true; };
  TestThread thread(body);
  {
    // Not the new thread's, which may come first.
    const Instead<Call::pthread_cond_broadcast> refused([caller =
                                                             ::pthread_self()](pthread_cond_t* condition) {
      return ::pthread_equal(caller, ::pthread_self()) != 0 ? EINVAL
                                                            : real<Call::pthread_cond_broadcast>(condition);
    });
    EXPECT_EQ(raisedBy([&] { thread.run(); }),
              osError(EINVAL, "include/os/posix/thread/Condition", 32, "signalAll"));
  }
  thread.join();
  EXPECT_EQ(thread.state(), BasicThread::BURIED);
  thread.run();
  thread.join();
  EXPECT_TRUE(ran);
}

TEST(ThreadEndsTest, AHeldThreadThatCannotBeWokenForItsEndStaysHeld) {
  Body body = [] { ADD_FAILURE() << "it was never let go"; };
  TestThread thread(body);
  thread.create();
  {
    const Refuse refused(Call::pthread_cond_broadcast, EINVAL, once);
    EXPECT_EQ(raisedBy([&] { thread.prepareJoin(); }),
              osError(EINVAL, "include/os/posix/thread/Condition", 32, "signalAll"));
  }
  EXPECT_EQ(thread.state(), BasicThread::CREATED);
  thread.join();
  EXPECT_EQ(thread.state(), BasicThread::BURIED);
}

/// Uses a thread in another one that got its handle from the system: between the end of the one and its
/// burial by whoever joins it.
Raised raisedByTheNextOwnerOfTheHandle(BasicThread& thread, const std::function<void()>& use) {
  Raised result;
  result.type = "unused";
  std::atomic<bool> done{false};
  bool reused = false;
  Gate go;
  Body body = [&] {
    go.pass();
    result = raisedBy(use);
    done = true;
  };
  TestThread next(body);
  thread.run();
  const ::pthread_t handle = thread.id().handle;
  {
    const After ended(Call::pthread_join, [&] {
      next.run();
      reused = ::pthread_equal(next.id().handle, handle) != 0;
      const int waits = made(Call::pthread_cond_wait);
      go.open();
      eventually([&] { return done || made(Call::pthread_cond_wait) > waits; });
    });
    thread.join();
  }
  next.join();
  EXPECT_TRUE(reused);
  return result;
}

TEST(ThreadEndsTest, AThreadWithTheHandleOfOneThatHasEndedIsNotTakenForIt) {
  KES_SKIP_UNDER_SANITIZERS("keeps the memory of a thread that has ended from the next");
  struct User : CoopThread::ICoopThread {
    void thread(CoopThread&) override {}
  } user;
  CoopThread thread("ends", &user);
  const Raised nothing;
  EXPECT_EQ(raisedByTheNextOwnerOfTheHandle(thread, [&] { thread.join(); }), nothing);
  EXPECT_EQ(raisedByTheNextOwnerOfTheHandle(thread, [&] { thread.waitReturned(); }), nothing);
  EXPECT_EQ(raisedByTheNextOwnerOfTheHandle(thread, [&] { thread.pause(); }).text,
            "Pause called from foreign thread");
}

TEST(ThreadEndsTest, ADetachedThreadOutlivesItsObject) {
  Gate gate;
  std::atomic<int> ran{0};
  Body body = [&] {
    gate.pass();
    ++ran;
  };
  for (int i = 0; i < 20; ++i) TestThread(body, /*detached=*/true).run();
  EXPECT_EQ(ran, 0);
  gate.open();
  EXPECT_TRUE(aloneInTheEnd());
  EXPECT_EQ(ran, 20);
}

TEST(ThreadEndsTest, ADetachedThreadThatDiesReportsWithoutItsObject) {
  testing::internal::CaptureStderr();
  Gate gate;
  Body body = [&] {
    gate.pass();
    throw 7;
  };
  const Instead<Call::gettid> numbered([] { return 42; });
  const int created = made(Call::gettid);
  TestThread(body, /*detached=*/true).run();
  ASSERT_TRUE(eventually([&] { return made(Call::gettid) > created && BasicThread::activeThreads() == 1; }));
  gate.open();
  EXPECT_TRUE(aloneInTheEnd());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Thread ends (42) died with an unknown exception\n");
}

TEST(ThreadEndsTest, DestroyingAHeldDetachedThreadWaitsUntilItIsGone) {
  for (int i = 0; i < 200; ++i) {
    std::atomic<int> ran{0};
    Body body = [&] { ++ran; };
    {
      TestThread thread(body, /*detached=*/true);
      thread.create();
    }
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(BasicThread::activeThreads(), 0);
  }
}

TEST(ThreadEndsTest, DestroyingAHeldThreadBuriesItWithoutRunningItsBody) {
  for (int i = 0; i < 200; ++i) {
    std::atomic<int> ran{0};
    Body body = [&] { ++ran; };
    {
      TestThread thread(body);
      thread.create();
    }
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(BasicThread::activeThreads(), 0);
  }
}

TEST(ThreadEndsTest, AnObjectMayBeDestroyedByItsOwnBody) {
  for (int i = 0; i < 100; ++i) {
    auto thread = std::unique_ptr<TestThread>();
    Gate made;
    Body body = [&] {
      made.pass();
      thread.reset();
    };
    thread = std::make_unique<TestThread>(body);
    thread->run();
    made.open();
    ASSERT_TRUE(aloneInTheEnd());
  }
}

/// Destroys a thread object, and overwrites the place where it was, between its native thread's pick-up of
/// the go and the first step of the body, which is not a part of it.
template <typename Thread, typename User>
void destroyBeforeTheBody(User& user) {
  alignas(Thread) std::byte place[sizeof(Thread)];
  auto* const thread = new (place) Thread("ends", &user);
  Gate start, between;
  std::atomic<bool> pickedUp{false};
  const After held(Call::pthread_setname_np, [&] { start.pass(); });
  thread->run();
  const After afterTheGo(Call::pthread_cond_broadcast, [&] {
    pickedUp = true;
    between.pass();
  });
  start.open();
  ASSERT_TRUE(eventually([&] { return pickedUp.load(); }));
  thread->~Thread();
  std::fill(std::begin(place), std::end(place), std::byte{0xa5});
  between.open();
  EXPECT_TRUE(aloneInTheEnd());
}

TEST(ThreadEndsTest, ABodyOfItsOwnRunsAlthoughTheObjectIsGoneBeforeItsFirstStep) {
  struct User : CppThread::IThread {
    void thread(CppThread&) override { ran = true; }
    std::atomic<bool> ran{false};
  } user;
  destroyBeforeTheBody<CppThread>(user);
  EXPECT_TRUE(user.ran);
}

TEST(ThreadEndsTest, ACooperativeBodyOfItsOwnRunsAlthoughTheObjectIsGoneBeforeItsFirstStep) {
  struct User : CoopThread::ICoopThread {
    void thread(CoopThread&) override { ran = true; }
    std::atomic<bool> ran{false};
  } user;
  destroyBeforeTheBody<CoopThread>(user);
  EXPECT_TRUE(user.ran);
}

TEST(ThreadEndsTest, WhoWaitsForAThreadThatStartsIsNotToldThatThereIsNoneWhenItIsOver) {
  struct User : CoopThread::ICoopThread {
    void thread(CoopThread&) override {}
  } user;
  for (int i = 0; i < 100; ++i) {
    CoopThread coop("ends", &user);
    Gate start;
    const After held(Call::pthread_setname_np, [&] { start.pass(); });
    coop.run();
    const int waits = made(Call::pthread_cond_wait);
    std::vector<std::thread> waiters;
    std::vector<Raised> raised(8);
    for (Raised& result : raised) {
      waiters.emplace_back([&] { result = raisedBy([&] { coop.waitReturned(); }); });
    }
    ASSERT_TRUE(eventually([&] { return made(Call::pthread_cond_wait) >= waits + 8; }));
    start.open();
    coop.join();
    for (std::thread& waiter : waiters) waiter.join();
    for (const Raised& result : raised) ASSERT_EQ(result, Raised{});
  }
}

TEST(ThreadEndsTest, ThreadsAreCreatedAndEndedFromManyThreadsAtOnce) {
  std::atomic<int> ran{0};
  const auto work = [&] {
    Body body = [&] { ++ran; };
    for (int i = 0; i < 100; ++i) {
      TestThread thread(body);
      thread.run();
      thread.join();
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back(work);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(ran, 400);
  EXPECT_EQ(BasicThread::activeThreads(), 0);
}

TEST(ThreadEndsTest, AFailureToLockInTheDestructorEndsTheProgram) {
  const ChildResult child = inChild([] {
    std::set_terminate([] { ::_exit(42); });
    Body body = [] {};
    auto thread = std::make_unique<TestThread>(body);
    const Refuse fault(Call::pthread_mutex_lock, EINVAL, once);
    thread.reset();
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 42);
}

TEST(ThreadEndsTest, AFailureToLockForTheBurialIsNotTheLastTry) {
  const ChildResult child = inChild([] {
    std::set_terminate([] { ::_exit(42); });
    Body body = [] {};
    TestThread thread(body);
    thread.run();
    std::optional<Refuse> fault;
    const After joined(Call::pthread_join,
                       [&fault] { fault.emplace(Call::pthread_mutex_lock, EINVAL, once); });
    thread.join();
    return thread.state() == BasicThread::BURIED ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(ThreadEndsTest, ASecondFailureToLockForTheBurialEndsTheProgram) {
  const ChildResult child = inChild([] {
    std::set_terminate([] { ::_exit(42); });
    Body body = [] {};
    TestThread thread(body);
    thread.run();
    std::optional<Refuse> fault;
    const After joined(Call::pthread_join, [&fault] {
      fault.emplace(Call::pthread_mutex_lock, EINVAL, Which{0, 2});
    });
    thread.join();
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 42);
}

TEST(ThreadEndsTest, AProcessMayEndWhileThreadsRun) {
  const ChildResult child = inChild([]() -> int {
    static Gate never;
    static Body body = [] { never.pass(); };
    static TestThread thread(body), detached(body, /*detached=*/true);
    thread.run();
    detached.run();
    std::exit(3);
  });
  EXPECT_EQ(child.exitCode(), 3) << child.signal() << child.err;
}

TEST(ThreadEndsTest, AForkedChildMayDestroyAThreadThatStayedWithItsParent) {
  Gate gate;
  Body body = [&] { gate.pass(); };
  auto thread = std::make_unique<TestThread>(body);
  thread->run();
  thread->id();
  const ChildResult child = inChild([&] {
    thread.reset();
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.signal() << child.err;
  gate.open();
  thread->join();
}

}  // namespace
}  // namespace kes::thread
