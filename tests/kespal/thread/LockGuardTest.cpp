#include "kespal/thread/LockGuard.h"

#include <cerrno>

#include "kespal/thread/Condition.h"
#include "kespal/thread/Lock.h"
#include "support/Calls.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"

namespace kes::thread {
namespace {

using namespace test;

bool isLocked(const Lock& lock) {
  return raisedBy([&] { lock.lock(); }).type == "kes::OsError" ? true : (lock.unlock(), false);
}

TEST(LockGuardTest, HoldsALockForAScope) {
  const Lock lock(ErrorCheck);
  {
    const LockGuardT<Lock> guard(lock);
    EXPECT_TRUE(isLocked(lock));
  }
  EXPECT_FALSE(isLocked(lock));
}

TEST(LockGuardTest, HoldsAConditionsLockForAScope) {
  Lock lock(ErrorCheck);
  const Condition condition(lock);
  {
    const LockGuardT<Condition> guard(condition);
    EXPECT_TRUE(isLocked(lock));
  }
  EXPECT_FALSE(isLocked(lock));
}

TEST(LockGuardTest, ReleasesWhenAnExceptionLeavesTheScope) {
  const Lock lock(ErrorCheck);
  try {
    const LockGuardT<Lock> guard(lock);
    throw 1;
  } catch (int) {
  }
  EXPECT_FALSE(isLocked(lock));
}

TEST(LockGuardTest, ACalleeCanReleaseItBeforeTheScopeEnds) {
  const Lock lock(ErrorCheck);
  testing::internal::CaptureStderr();
  {
    LockGuardT<Lock> guard(lock);
    [](LockGuardT<Lock>& handed) { handed.unlock(); }(guard);
    EXPECT_FALSE(isLocked(lock));
    EXPECT_NO_THROW(guard.unlock());
  }
  // A second release of an error-checking lock would have been reported.
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(LockGuardTest, AReleasedGuardLeavesALockAloneThatSomebodyElseHasTakenSince) {
  const Lock lock(ErrorCheck);
  {
    LockGuardT<Lock> guard(lock);
    guard.unlock();
    lock.lock();
  }
  EXPECT_TRUE(isLocked(lock));
  lock.unlock();
}

TEST(LockGuardTest, ADismissedGuardLeavesTheLockTaken) {
  const Lock lock(ErrorCheck);
  {
    LockGuardT<Lock> guard(lock);
    guard.dismiss();
  }
  EXPECT_TRUE(isLocked(lock));
  lock.unlock();
}

TEST(LockGuardTest, AFailureToLockIsRaisedAndUnlocksNothing) {
  const Lock lock(ErrorCheck);
  const Raised raised = raisedBy([&] {
    const Refuse fault(Call::pthread_mutex_lock, EINVAL, once);
    const LockGuardT<Lock> guard(lock);
  });
  EXPECT_EQ(raised, osError(EINVAL, "include/os/posix/thread/Lock", 21, "lock"));
  EXPECT_FALSE(isLocked(lock));
}

TEST(LockGuardTest, AFailureToUnlockAtTheEndOfTheScopeIsReportedAndGoesNoFurther) {
  KES_SKIP_UNDER_THREAD_SANITIZER("reports the misuse of a lock that is tested here");
  const Lock lock(ErrorCheck);
  testing::internal::CaptureStderr();
  EXPECT_NO_THROW({
    const LockGuardT<Lock> guard(lock);
    lock.unlock();
  });
  const std::string printed = testing::internal::GetCapturedStderr();
  EXPECT_THAT(printed, testing::StartsWith("Exception caught while destroying scope guard:\n"));
  EXPECT_THAT(printed, testing::HasSubstr("include/os/posix/thread/Lock"));
}

}  // namespace
}  // namespace kes::thread
