// Moments at which the collector or a child of it meets a failure that nobody sees coming.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>

#include "kespal/GroupInfo.h"
#include "kespal/UserInfo.h"
#include "kespal/proc/Child.h"
#include "kespal/time/Clock.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/Eventually.h"

#include "support/ForkedChild.h"
#include "support/NoMemory.h"
#include "support/RaisedAs.h"
#include "support/Sanitizer.h"
#include "sys/AtEnd.h"

namespace kes::proc {
namespace {

using test::Call;
using test::Interlude;
using test::NoMemory;
using test::Refuse;

class CollectorFaultsTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { time::ClockBase::init(); }
  void TearDown() override { Child::exit(); }
};

bool hasChildren() { return ::waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD; }

/// What waitpid() in another thread would do to a child that has ended.
Child::ExitState stateWhenStolen(const std::string& command, int waitsBefore) {
  Child child({"/bin/sh", "-c", command});
  pid_t stolen = -1;
  const Interlude stealing(
      Interlude::Before, Call::waitpid, [&] { stolen = ::waitpid(child.pid(), nullptr, 0); },
      waitsBefore + 1);
  child.create();
  const pid_t pid = child.pid();
  const Child::ExitState state = child.wait();
  EXPECT_EQ(stolen, pid);
  return state;
}

TEST_F(CollectorFaultsTest, AChildThatSomebodyElseReapsAfterTheLookKeepsItsStatus) {
  const int before = test::isSanitized ? 0 : 1;  // how a child is started takes one of its own
  const Child::ExitState ended = stateWhenStolen("exit 7", before);
  EXPECT_TRUE(ended.finished && WIFEXITED(ended.status));
  EXPECT_EQ(WEXITSTATUS(ended.status), 7);
  const Child::ExitState killed = stateWhenStolen("kill -9 $$", before);
  EXPECT_TRUE(killed.finished && WIFSIGNALED(killed.status));
  EXPECT_EQ(WTERMSIG(killed.status), 9);
}

TEST_F(CollectorFaultsTest, AChildWhoseRegistrationIsRefusedIsNotMade) {
  Child sleeper({"/bin/sleep", "100"}), child({"/bin/true"});
  const int waits = test::made(Call::waitid);
  sleeper.create();
  ASSERT_TRUE(
      test::eventually([&] { return test::made(Call::waitid) > waits; }));  // and does nothing else then
  {
    const Refuse refuse(Call::pthread_cond_broadcast, EINVAL);
    EXPECT_EQ(test::raisedAs<OsError>([&] { child.create(); }).errnum(), EINVAL);
  }
  EXPECT_EQ(child.pid(), -1);
  child.create();
  EXPECT_TRUE(child.wait().finished);
  sleeper.kill();
  sleeper.wait();
  EXPECT_FALSE(hasChildren());
}

TEST_F(CollectorFaultsTest, TheCollectorEndsWhileChildrenRunAlsoWithoutMemory) {
  for (std::size_t allocations = 0;; ++allocations) {
    Child sleeper({"/bin/sleep", "100"});
    const sys::AtEnd ending([&] {
      if (sleeper.pid() == -1) return;
      sleeper.kill();
      ::waitpid(sleeper.pid(), nullptr, 0);
    });
    bool refused = false;
    {
      const NoMemory starving(allocations);
      try {
        sleeper.create();
      } catch (const std::bad_alloc&) {
      }
      Child::exit();  // the end of the next child would come after 100 s
      refused = NoMemory::refused();
    }
    EXPECT_EQ(Child::m_shepherd, nullptr);
    EXPECT_TRUE(sleeper.pid() == -1 || ::kill(sleeper.pid(), 0) == 0);
    if (!refused) break;
  }
}

TEST_F(CollectorFaultsTest, ALockThatCannotBeMadeInAForkedChildIsNotTheEndOfIt) {
  const Refuse refuse(Call::pthread_mutex_init, EAGAIN);
  EXPECT_EQ(test::inChild([&] { return refuse.struck(); }).exitCode(), 1);
}

/// Does something in a thread whose cancellation is pending; whether it came to its end.
bool isDoneByACancelledThread(const std::function<void()>& step) {
  struct Order {
    const std::function<void()>& step;
    bool done = false;
  } order{step};
  pthread_t thread{};
  ::pthread_create(
      &thread, nullptr,
      [](void* argument) -> void* {
        auto& what = *static_cast<Order*>(argument);
        ::pthread_cancel(::pthread_self());
        what.step();
        what.done = true;
        return nullptr;
      },
      &order);
  ::pthread_join(thread, nullptr);
  return order.done;
}

TEST_F(CollectorFaultsTest, ACancelledThreadMaySignalAChildThatNobodyLooksAfter) {
  KES_SKIP_UNDER_SANITIZERS("does not follow a thread that is cancelled");
  Child sleeper({"/bin/sleep", "100"});
  sleeper.create();
  Child::exit();
  EXPECT_TRUE(isDoneByACancelledThread([&] { sleeper.kill(); }));
  int status = 0;
  EXPECT_EQ(::waitpid(sleeper.pid(), &status, 0), sleeper.pid());
  EXPECT_TRUE(WIFSIGNALED(status));
}

TEST_F(CollectorFaultsTest, ACancelledThreadMayFailToEnterAProcessGroup) {
  KES_SKIP_UNDER_SANITIZERS("does not follow a thread that is cancelled");
  const Refuse refuse(Call::setpgid, EPERM);
  testing::internal::CaptureStderr();
  EXPECT_TRUE(isDoneByACancelledThread([] { enterNewProcessGroup(); }));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Failed to set new process group. Errno = " + std::to_string(EPERM) + "\n");
}

TEST_F(CollectorFaultsTest, ALookAtTheAccountsIsNotCancelledInTheMiddle) {
  KES_SKIP_UNDER_SANITIZERS("does not follow a thread that is cancelled");
  const auto before = test::openDescriptors();
  EXPECT_TRUE(isDoneByACancelledThread([] {
    GroupInfo(0U);
    UserInfo(0U);
    UserInfo::setLoginName();
  }));
  EXPECT_EQ(test::openDescriptors(), before);
}

}  // namespace
}  // namespace kes::proc
