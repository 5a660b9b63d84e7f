// Moments at which the collector or a child of it meets a failure that nobody sees coming.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>

#include "kespal/GroupInfo.h"
#include "kespal/UserInfo.h"
#include "kespal/error/StaticError.h"
#include "kespal/proc/Child.h"
#include "kespal/proc/Shepherd.h"
#include "kespal/time/Clock.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"
#include "sys/AtEnd.h"

namespace kes::proc {
namespace {

using test::Call;
using test::Instead;
using test::Interlude;
using test::NoMemory;
using test::Refuse;

class CollectorFaultsTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { time::ClockBase::init(); }
  void TearDown() override { Child::exit(); }
};

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

struct Released : Child::Notification {
  void exited(Child&) override { ++others; }
  void released(Child&) override { ++releases; }
  std::atomic<int> releases{0}, others{0};
};

TEST_F(CollectorFaultsTest, WhoWaitsForAChildThatSomebodyElseReapedIsToldSo) {
  Released released;
  Child child({"/bin/sleep", "100"});
  child.setNotify(&released);
  std::atomic<bool> isStolen{false};
  const Instead<Call::waitid> stealing([&](idtype_t type, id_t id, siginfo_t* info, int options) {
    if (type == P_ALL && !isStolen.exchange(true)) {
      const Shepherd::Guard registered(Child::m_shepherd->condition());
      ::kill(child.pid(), SIGKILL);
      test::real<Call::waitpid>(child.pid(), nullptr, 0);
    }
    return test::real<Call::waitid>(type, id, info, options);
  });
  testing::internal::CaptureStderr();
  child.create();
  const RuntimeError error = test::raisedAs<RuntimeError>([&] { child.wait(); });
  EXPECT_EQ(error.text(), "The process collector does not know this child");
  EXPECT_EQ(child.pid(), -1);
  Child next({"/bin/true"});
  next.create();
  EXPECT_TRUE(next.wait().finished);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "process collector: Error waiting for childs ...\n");
  EXPECT_EQ(released.releases, 1);
  EXPECT_EQ(released.others, 0);
  const int forks = test::made(Call::fork);
  Child::exit();
  EXPECT_EQ(test::made(Call::fork), forks) << "it was woken by a child, as if one still ran";
}

TEST_F(CollectorFaultsTest, AChildWhoseRegistrationIsRefusedIsNotMade) {
  Child sleeper({"/bin/sleep", "100"});
  const sys::AtEnd ending([&] { sleeper.kill(); });
  const int waits = test::made(Call::waitid);
  sleeper.create();
  ASSERT_TRUE(test::eventually([&] { return test::made(Call::waitid) > waits; }));  // and takes no lock then
  testing::internal::CaptureStderr();
  for (int number = 1, struck = 1; struck != 0; ++number) {
    Child child({"/bin/sleep", "100"});
    {
      const Refuse refuse(Call::pthread_mutex_lock, EINVAL, test::nth(number));
      try {
        child.create();
      } catch (const OsError&) {
        EXPECT_EQ(child.pid(), -1);
      }
      struck = refuse.struck();
    }
    EXPECT_TRUE(struck != 0 || child.pid() != -1);
    if (child.pid() == -1) continue;
    child.kill();
    child.wait();
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "");  // of a child that nobody registered the collector tells
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

TEST_F(CollectorFaultsTest, AMessageArrivesWholeHoweverLittleIsTakenOfItAtOnce) {
  const Refuse refuse(Call::setpgid, EPERM);
  for (const std::size_t most : {1U, 2U, 40U}) {
    const test::Shorten shorten(Call::writev, most);
    testing::internal::CaptureStderr();
    enterNewProcessGroup();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Failed to set new process group. Errno = " + std::to_string(EPERM) + "\n");
  }
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
