#include "kespal/thread/Lock.h"

#include <cerrno>
#include <thread>

#include "kespal/error/OsError.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"

namespace kes::thread {

// Not in the unnamed namespace: only exported functions have names in a backtrace.
[[gnu::noinline]] void unlockWithoutLocking(const Lock& lock) { lock.unlock(); }

namespace {

using namespace test;

constexpr const char* source = "src/os/posix/thread/Lock";
constexpr const char* header = "include/os/posix/thread/Lock";

TEST(LockTest, ANormalLockIsMadeWithoutAnAttributeObject) {
  const int before = made(Call::pthread_mutexattr_init);
  const Lock lock(Normal);
  EXPECT_EQ(made(Call::pthread_mutexattr_init), before);
  EXPECT_NO_THROW(lock.lock());
  EXPECT_NO_THROW(lock.unlock());
}

TEST(LockTest, ARecursiveLockCanBeTakenAgainByItsOwner) {
  KES_SKIP_UNDER_THREAD_SANITIZER("reports the misuse of a lock that is tested here");
  const Lock lock(Recursive);
  lock.lock();
  EXPECT_NO_THROW(lock.lock());
  lock.unlock();
  // It takes as many unlocks before another thread can have it.
  std::thread([&] {
    EXPECT_EQ(raisedBy([&] { lock.unlock(); }), osError(EPERM, header, 49, "unlock"));
  }).join();
  lock.unlock();
  std::thread([&] {
    EXPECT_NO_THROW(lock.lock());
    EXPECT_NO_THROW(lock.unlock());
  }).join();
}

class ErrorCheckTest : public testing::TestWithParam<int> {};

TEST_P(ErrorCheckTest, LockingAgainByTheOwnerFails) {
  const Lock lock(static_cast<LockKind>(GetParam()));
  lock.lock();
  EXPECT_EQ(raisedBy([&] { lock.lock(); }), osError(EDEADLK, header, 21, "lock"));
  lock.unlock();
}

TEST_P(ErrorCheckTest, UnlockingByAnotherThreadOrWithoutLockingFails) {
  KES_SKIP_UNDER_THREAD_SANITIZER("reports the misuse of a lock that is tested here");
  const Lock lock(static_cast<LockKind>(GetParam()));
  EXPECT_EQ(raisedBy([&] { lock.unlock(); }), osError(EPERM, header, 49, "unlock"));
  lock.lock();
  std::thread([&] {
    EXPECT_EQ(raisedBy([&] { lock.unlock(); }), osError(EPERM, header, 49, "unlock"));
  }).join();
  lock.unlock();
}

INSTANTIATE_TEST_SUITE_P(EveryKindButTheFirstTwo, ErrorCheckTest, testing::Values(2, 3, 7, -1, 1 << 30));

TEST(LockTest, EachFailingCallOfTheConstructorIsReportedWithItsCodeAndLine) {
  const auto construct = [](LockKind kind) { return [kind] { Lock lock(kind); }; };
  for (const LockKind kind : {Recursive, ErrorCheck}) {
    {
      const Refuse fault(Call::pthread_mutexattr_init, ENOMEM, once);
      EXPECT_EQ(raisedBy(construct(kind)), osError(ENOMEM, source, 51, "LockBase"));
    }
    {
      const Refuse fault(Call::pthread_mutexattr_settype, EINVAL, once);
      EXPECT_EQ(raisedBy(construct(kind)), osError(EINVAL, source, 64, "LockBase"));
    }
  }
  for (const LockKind kind : {Recursive, Normal, ErrorCheck}) {
    const Refuse fault(Call::pthread_mutex_init, EAGAIN, once);
    EXPECT_EQ(raisedBy(construct(kind)), osError(EAGAIN, source, 77, "LockBase"));
  }
}

TEST(LockTest, TheAttributeObjectIsDestroyedAfterTheMutexWasTriedAndNotBefore) {
  int before = made(Call::pthread_mutexattr_destroy);
  { const Lock lock(Recursive); }
  EXPECT_EQ(made(Call::pthread_mutexattr_destroy), before + 1);

  before = made(Call::pthread_mutexattr_destroy);
  {
    const Refuse fault(Call::pthread_mutex_init, EAGAIN, once);
    EXPECT_THROW(Lock lock(Recursive), OsError);
  }
  EXPECT_EQ(made(Call::pthread_mutexattr_destroy), before + 1);

  before = made(Call::pthread_mutexattr_destroy);
  {
    const Refuse fault(Call::pthread_mutexattr_settype, EINVAL, once);
    EXPECT_THROW(Lock lock(Recursive), OsError);
  }
  EXPECT_EQ(made(Call::pthread_mutexattr_destroy), before);
}

TEST(LockTest, FailingLockAndUnlockReportTheCodeThatWasReturnedNotErrno) {
  const Lock lock(Normal);
  errno = ENOENT;
  Raised raised = raisedBy([&] {
    const Refuse fault(Call::pthread_mutex_lock, EINVAL, once);
    lock.lock();
  });
  EXPECT_EQ(raised, osError(EINVAL, header, 21, "lock"));
  lock.lock();
  raised = raisedBy([&] {
    const Refuse fault(Call::pthread_mutex_unlock, EPERM, once);
    lock.unlock();
  });
  EXPECT_EQ(raised, osError(EPERM, header, 49, "unlock"));
}

class LockWarningTest : public testing::TestWithParam<LockKind> {};

TEST_P(LockWarningTest, DestroyingALockedMutexPrintsTheWarningAndContinues) {
  KES_SKIP_UNDER_THREAD_SANITIZER("reports the misuse of a lock that is tested here");
  testing::internal::CaptureStderr();
  {
    const Lock lock(GetParam());
    lock.lock();
  }
  OsError expected(EBUSY);
  expected.setSite({source, 88, "~LockBase"});
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            std::string("WARNING: Destroying mutex failed:\n") + expected.what() + "\n");
}

INSTANTIATE_TEST_SUITE_P(EveryKind, LockWarningTest, testing::Values(Recursive, Normal, ErrorCheck));

TEST(LockTest, TheWarningOfADestructorHasABacktraceWhenTheyAreOn) {
  KES_SKIP_UNDER_THREAD_SANITIZER("reports the misuse of a lock that is tested here");
  Exception::m_gen_backtraces = true;
  testing::internal::CaptureStderr();
  {
    const Lock lock(Normal);
    lock.lock();
  }
  Exception::m_gen_backtraces = false;
  const std::string printed = testing::internal::GetCapturedStderr();
  EXPECT_THAT(printed, testing::StartsWith("WARNING: Destroying mutex failed:\n"));
  EXPECT_THAT(printed, testing::HasSubstr("kes::thread::LockBase::~LockBase()"));
}

TEST(LockTest, AWarningIsPrintedWhateverTheStandardErrorStreamIsIn) {
  KES_SKIP_UNDER_THREAD_SANITIZER("reports the misuse of a lock that is tested here");
  const ChildResult child = inChild([] {
    std::cerr.exceptions(std::ios::badbit | std::ios::failbit);
    const Lock lock(Normal);
    lock.lock();
    EXPECT_THROW(std::cerr.rdbuf(nullptr), std::ios::failure);
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_THAT(child.err, testing::StartsWith("WARNING: Destroying mutex failed:\nException occured at"));
}

TEST(LockTest, ALockKeepsThreadsOutOfEachOthersWay) {
  const Lock lock(Normal);
  long shared = 0;
  const auto work = [&] {
    for (int i = 0; i < 20000; ++i) {
      lock.lock();
      ++shared;
      lock.unlock();
    }
  };
  std::thread first(work), second(work), third(work);
  first.join(), second.join(), third.join();
  EXPECT_EQ(shared, 60000);
}

TEST(LockTest, TheRaisedErrorKnowsTheStackOfTheCaller) {
  KES_SKIP_UNDER_THREAD_SANITIZER("reports the misuse of a lock that is tested here");
  Exception::m_gen_backtraces = true;
  const Lock lock(ErrorCheck);
  try {
    unlockWithoutLocking(lock);
    ADD_FAILURE() << "nothing raised";
  } catch (const OsError& error) {
    ASSERT_FALSE(error.backtrace().empty());
    // The operation is inlined: the innermost frame is its caller's.
    EXPECT_THAT(error.backtrace().back(), testing::HasSubstr("unlockWithoutLocking"));
  }
  Exception::m_gen_backtraces = false;
}

}  // namespace
}  // namespace kes::thread
