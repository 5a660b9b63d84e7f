// Whom a collector tells, and of what: asked without its thread, and then of one that runs.
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kespal/proc/Child.h"
#include "kespal/proc/Collecting.h"
#include "kespal/proc/Shepherd.h"
#include "kespal/time/Clock.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"

namespace kes::proc {
namespace {

using namespace std::chrono_literals;
using test::Collecting;
using test::eventually;

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

TEST(NotificationTest, AChildWithANotificationMayBeDestroyedAtAnyMoment) {
  struct Counter : Child::Notification {
    void exited(Child& child) override {
      EXPECT_EQ(&child, alive);
      ++calls;
    }
    std::atomic<Child*> alive{nullptr};
    std::atomic<int> calls{0};
  } counter;
  for (int round = 0; round < 300; ++round) {
    auto child = std::make_unique<Child>(std::list<std::string>{"/bin/true"});
    child->setNotify(&counter);
    counter.alive = child.get();
    child->create(false);
    if (round % 3 == 0) child->wait(false, {});
    if (round % 3 == 1) std::this_thread::sleep_for(std::chrono::microseconds(round * 10));
    child.reset();
    counter.alive = nullptr;
  }
  // Whose status was there had its notification called, which the end of the object waits for.
  EXPECT_GE(counter.calls.load(), 100);
  Child::exit();
}

TEST(NotificationTest, AnotherNotificationCanBeSetOnlyWhenTheEarlierOneIsOver) {
  test::SlowToBeTold slow;
  Child child({"/bin/true"});
  child.setNotify(&slow);
  child.create(false);
  ASSERT_TRUE(eventually([&] { return slow.begun.load(); }));
  EXPECT_TRUE(child.wait(false, {}).finished);  // the status is there already
  auto changed = std::async(std::launch::async, [&] {
    child.setNotify(nullptr);
    return slow.ended.load();
  });
  EXPECT_EQ(changed.wait_for(20ms), std::future_status::timeout);
  slow.hold.open();
  EXPECT_TRUE(changed.get());
  Child::exit();
}

TEST(NotificationTest, APidThatIsRegisteredAgainLosesTheNotificationOfItsOldChild) {
  struct Unwanted : Child::Notification {
    void exited(Child&) override { ADD_FAILURE() << "of a child that somebody else has reaped"; }
  } unwanted;
  Collecting collecting;
  Child old({"/bin/true"});
  old.setNotify(&unwanted);
  const pid_t pid = collecting.add(std::nullopt);
  {
    const Shepherd::Guard guard(collecting.shepherd.condition());
    collecting.shepherd.addNoLock(pid, &old);
    collecting.shepherd.addNoLock(pid, nullptr);
  }
  ::kill(pid, SIGKILL);
  int status = 0;
  EXPECT_TRUE(collecting.shepherd.wait(pid, status, nullptr));
}
}  // namespace
}  // namespace kes::proc
