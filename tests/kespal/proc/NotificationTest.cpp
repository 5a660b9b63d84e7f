// Whom a collector tells, and of what, asked without its thread.
#include <sys/types.h>

#include <csignal>

#include <vector>

#include "kespal/proc/Child.h"
#include "kespal/proc/Shepherd.h"
#include "kespal/time/Clock.h"
#include "support/ForkedChild.h"

namespace kes::proc {
namespace {

struct Noting : Child::Notification {
  std::vector<Child*> told;
  void exited(Child& child) override { told.push_back(&child); }
};

TEST(NotificationTest, TheNotificationOfARegisteredChildIsCalledOnceAndWithoutTheLock) {
  Noting noting;
  Child child;
  child.setNotify(&noting);
  Shepherd shepherd;
  constexpr pid_t pid = 4711;
  {
    Shepherd::Guard guard(shepherd.condition());
    shepherd.addNoLock(pid, &child);
    shepherd.checkCB(pid, guard);
    EXPECT_TRUE(guard.dismissed());
  }
  Shepherd::Guard guard(shepherd.condition());
  shepherd.checkCB(pid, guard);
  EXPECT_FALSE(guard.dismissed()) << "nobody is left to be told";
  EXPECT_EQ(noting.told, std::vector<Child*>{&child});
}

TEST(NotificationTest, AChildWithoutANotificationAndAnUnknownOneAreToldToNobody) {
  Child child;
  Shepherd shepherd;
  Shepherd::Guard guard(shepherd.condition());
  shepherd.addNoLock(4711, &child);
  shepherd.checkCB(4712, guard);
  EXPECT_FALSE(guard.dismissed());
  shepherd.checkCB(4711, guard);
  EXPECT_TRUE(guard.dismissed());
}

TEST(NotificationTest, ANotificationThatHasNothingToSayAboutAReleaseMayLeaveItOut) {
  const auto process = test::inChild([] {
    Noting noting;
    Child child({"sleep", "600"});
    child.setNotify(&noting);
    time::ClockBase::init();
    child.create();
    Child::exit();
    const bool isSilent = noting.told.empty();
    child.kill(SIGKILL);
    return isSilent ? 0 : 1;
  });
  EXPECT_EQ(process.exitCode(), 0) << process.err;
  EXPECT_EQ(process.err, "");
}

TEST(NotificationTest, AnotherNotificationCanTakeThePlaceOfOne) {
  const auto process = test::inChild([] {
    Noting first, second;
    Child child({"true"});
    child.setNotify(&first);
    time::ClockBase::init();
    child.create();
    child.wait();
    child.setNotify(&second);
    child.create();
    child.wait();
    Child::exit();
    return static_cast<int>(10 * first.told.size() + second.told.size());
  });
  EXPECT_EQ(process.exitCode(), 11) << process.err;
}

}  // namespace
}  // namespace kes::proc
