#include <pthread.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <limits>

#include "kespal/error/OsError.h"
#include "kespal/fs/File.h"
#include "kespal/fs/Lock.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::Before;
using test::Call;
using test::raisedBy;
using test::Refuse;

struct LockTimedTest : testing::Test {
  test::TempDir dir;
  File ours, theirs;
  Lock lock, other;

  void SetUp() override {
    const std::string path = dir / "lock";
    ours.open(path.c_str(), File::READ_WRITE, File::CREATE);
    theirs.open(path.c_str(), File::READ_WRITE);
    lock.set(ours.fd());
    other.set(theirs.fd());
  }
};

TEST_F(LockTimedTest, AFreeLockIsTakenAtOnceEvenWithoutTime) {
  EXPECT_TRUE(lock.writeLockTimed(time::Milliseconds(0)));
  EXPECT_FALSE(other.tryReadLock());
  lock.unlock();
  EXPECT_TRUE(lock.readLockTimed(time::Milliseconds(-5)));
  EXPECT_TRUE(other.tryReadLock());
}

TEST_F(LockTimedTest, ALockThatSomebodyHoldsIsGivenUpWhenTheTimeIsOver) {
  other.writeLock();
  const auto start = steady_clock::now();
  EXPECT_FALSE(lock.writeLockTimed(time::Milliseconds(40)));
  EXPECT_GE(steady_clock::now() - start, milliseconds(40));
  EXPECT_FALSE(lock.readLockTimed(time::Milliseconds(0)));
  EXPECT_FALSE(lock.readLockTimed(time::Milliseconds(std::numeric_limits<std::int64_t>::min())));
}

TEST_F(LockTimedTest, ALockThatBecomesFreeMeanwhileIsTakenHoweverLongTheLimitIs) {
  other.writeLock();
  const Before before(Call::nanosleep, [this] { other.unlock(); });
  EXPECT_TRUE(lock.writeLockTimed(time::Milliseconds(std::numeric_limits<std::int64_t>::max())));
  EXPECT_FALSE(other.tryReadLock());
}

TEST_F(LockTimedTest, ASignalEndsTheWaiting) {
  other.writeLock();
  const Refuse failing(Call::nanosleep, EINTR, test::once);
  const auto raised = raisedBy([&] { lock.readLockTimed(time::Milliseconds(60'000)); });
  EXPECT_EQ(raised.type, "kes::OsError");
  EXPECT_EQ(raised.errnum, EINTR);
}

TEST_F(LockTimedTest, AnErrorOfTheSystemIsRaised) {
  const Refuse failing(Call::flock, ENOLCK);
  EXPECT_EQ(raisedBy([&] { lock.writeLockTimed(time::Milliseconds(1000)); }).errnum, ENOLCK);
  EXPECT_EQ(raisedBy([] { Lock().readLockTimed(time::Milliseconds(1000)); }).errnum, ENOLCK);
}

TEST_F(LockTimedTest, AThreadThatIsCancelledWhileItWaitsHoldsNothing) {
  KES_SKIP_UNDER_SANITIZERS("loses its way in the stack of a cancelled thread");
  other.writeLock();
  pthread_t thread;
  ASSERT_EQ(::pthread_create(
                &thread, nullptr,
                [](void* argument) -> void* {
                  ::pthread_cancel(::pthread_self());
                  static_cast<Lock*>(argument)->writeLockTimed(time::Milliseconds(60'000));
                  return nullptr;
                },
                &lock),
            0);
  void* result = nullptr;
  ::pthread_join(thread, &result);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  other.unlock();
  EXPECT_TRUE(other.tryWriteLock());
}

}  // namespace
}  // namespace kes::fs
