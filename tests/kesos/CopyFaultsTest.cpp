#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cerrno>
#include <functional>
#include <limits>
#include <optional>

#include "kesos/files.h"
#include "support/Calls.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

// The system calls of a copy, each as it should be or not.
namespace {

using kes::test::Call;
using kes::test::Instead;
using kes::test::real;

struct Plan {
  int interruptions = 0;  // so many reads and writes are interrupted before one is made
  std::size_t mostWritten = std::numeric_limits<std::size_t>::max();
  int lastRead = -1;           // the read after so many fails
  bool cancelsItself = false;  // together with that
  int failingClose = 0;        // counts from 1: the destination is closed before the source
  blksize_t blockSize = 0;     // 0: the file system's
  bool isAnothers = false;     // the destination, once it is open

  int interrupted = 0, reads = 0, closes = 0, fstats = 0, utimes = 0;
  mode_t modesWritten = 0;  // bits of the modes that files had when they were written
  std::vector<std::size_t> readSizes{};
};

thread_local std::optional<Plan> plan;

int fail(int error) {
  errno = error;
  return -1;
}

bool isInterrupted() {
  if (!plan || plan->interrupted == plan->interruptions) return false;
  ++plan->interrupted;
  return true;
}

const Instead<Call::read> readHere([](int fd, void* data, std::size_t size) -> ssize_t {
  if (isInterrupted()) return fail(EINTR);
  if (!plan) return real<Call::read>(fd, data, size);
  plan->interrupted = 0;
  plan->readSizes.push_back(size);
  if (plan->reads++ != plan->lastRead) return real<Call::read>(fd, data, size);
  if (plan->cancelsItself) ::pthread_cancel(::pthread_self());
  return fail(EIO);
});

const Instead<Call::write> writeHere([](int fd, const void* data, std::size_t size) -> ssize_t {
  if (isInterrupted()) return fail(EINTR);
  if (!plan) return real<Call::write>(fd, data, size);
  plan->interrupted = 0;
  struct stat state {};
  if (real<Call::fstat>(fd, &state) == 0) plan->modesWritten |= state.st_mode;
  return real<Call::write>(fd, data, std::min(size, plan->mostWritten));
});

const Instead<Call::close> closeHere([](int fd) {
  const int result = real<Call::close>(fd);
  return plan && ++plan->closes == plan->failingClose ? fail(EIO) : result;
});

const Instead<Call::fstat> fstatHere([](int fd, struct stat* state) {
  const int result = real<Call::fstat>(fd, state);
  const bool isDestination = plan && ++plan->fstats == 2;
  if (isDestination && plan->blockSize != 0) state->st_blksize = plan->blockSize;
  if (isDestination && plan->isAnothers) ++state->st_uid;
  return result;
});

const Instead<Call::utime> utimeHere([](const char* path, const utimbuf* times) {
  if (plan) ++plan->utimes;
  return real<Call::utime>(path, times);
});

using kes::test::readFile;
using kes::test::TempDir;
using kes::test::writeFile;
using testing::Each;

class CopyFaultsTest : public testing::Test {
 protected:
  void SetUp() override { writeFile(from_, content_); }

  /// Copies by the plan, which then says what was done.
  int copy(const Plan& wanted) {
    plan = wanted;
    const int result = KesOsCopyFile(from_.c_str(), to_.c_str(), 0);
    const int error = errno;
    done_ = *plan;
    plan.reset();
    errno = error;
    return result;
  }

  TempDir dir_;
  const std::string from_ = dir_ / "from", to_ = dir_ / "to";
  const std::string content_ = std::string(10'000, 'a') + std::string(10'000, 'b');
  Plan done_;
};

TEST_F(CopyFaultsTest, InterruptedReadsAndWritesAreRepeated) {
  EXPECT_EQ(copy({.interruptions = 3}), 1);
  EXPECT_EQ(readFile(to_), content_);
}

TEST_F(CopyFaultsTest, AShortWriteGoesOnWithTheRest) {
  EXPECT_EQ(copy({.mostWritten = 777}), 1);
  EXPECT_EQ(readFile(to_), content_);
}

TEST_F(CopyFaultsTest, TheBufferIsABlockOfTheDestination) {
  struct stat state {};
  ASSERT_EQ(::stat(dir_.path().c_str(), &state), 0);
  EXPECT_EQ(copy({}), 1);
  EXPECT_THAT(done_.readSizes, Each(static_cast<std::size_t>(state.st_blksize)));
  EXPECT_EQ(copy({.blockSize = 3000}), 1);
  EXPECT_THAT(done_.readSizes, Each(3000U));
}

TEST_F(CopyFaultsTest, WithoutABlockSizeTheBufferHas512Bytes) {
  EXPECT_EQ(copy({.blockSize = -1}), 1);
  EXPECT_THAT(done_.readSizes, Each(512U));
  EXPECT_EQ(readFile(to_), content_);
}

TEST_F(CopyFaultsTest, AReadThatFailsHalfWayGivesZeroWithItsReason) {
  EXPECT_EQ(copy({.lastRead = 1}), 0);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(done_.closes, 2);
  EXPECT_EQ(done_.utimes, 0);
}

TEST_F(CopyFaultsTest, ADestinationThatCannotBeClosedGivesZeroAndNoTimes) {
  EXPECT_EQ(copy({.failingClose = 1}), 0);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(done_.closes, 2);
  EXPECT_EQ(done_.utimes, 0);
}

TEST_F(CopyFaultsTest, ASourceThatCannotBeClosedGivesZeroAfterAll) {
  EXPECT_EQ(copy({.failingClose = 2}), 0);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(done_.utimes, 1);
  EXPECT_EQ(readFile(to_), content_);
}

mode_t modeOf(const std::string& path) {
  struct stat state {};
  return ::stat(path.c_str(), &state) == 0 ? state.st_mode & 07777 : 0;
}

TEST_F(CopyFaultsTest, AFileHasNoSetIdBitsWhileItIsWritten) {
  const mode_t before = ::umask(022);
  ASSERT_EQ(::chmod(from_.c_str(), 06755), 0);
  EXPECT_EQ(copy({}), 1);
  EXPECT_EQ(done_.modesWritten & 06777U, 0755U);
  EXPECT_EQ(modeOf(to_), 06755U) << "a new file gets them in the end";
  EXPECT_EQ(copy({}), 1);
  EXPECT_EQ(done_.modesWritten & 06777U, 0755U);
  EXPECT_EQ(modeOf(to_), 0755U) << "a file that had them for another content loses them";
  ASSERT_EQ(::unlink(to_.c_str()), 0);
  EXPECT_EQ(copy({.lastRead = 1}), 0);
  EXPECT_EQ(modeOf(to_), 0755U) << "and a copy that broke off never gets them";
  ::umask(before);
}

TEST_F(CopyFaultsTest, AFileThatIsMadeThroughALinkGetsTheSetIdBitsAsAnyNewOne) {
  const mode_t before = ::umask(022);
  ASSERT_EQ(::chmod(from_.c_str(), 06755), 0);
  ASSERT_EQ(::symlink("target", to_.c_str()), 0);
  EXPECT_EQ(copy({}), 1);
  EXPECT_EQ(done_.modesWritten & 06000U, 0U);
  EXPECT_EQ(modeOf(dir_ / "target"), 06755U);
  EXPECT_EQ(copy({}), 1);
  EXPECT_EQ(modeOf(dir_ / "target"), 0755U) << "that was an existing file";
  EXPECT_EQ(readFile(dir_ / "target"), content_);
  ASSERT_EQ(::unlink(to_.c_str()), 0);
  ASSERT_EQ(::symlink("missing/target", to_.c_str()), 0);
  EXPECT_EQ(copy({}), 0);
  EXPECT_EQ(errno, ENOENT);
  ::umask(before);
}

TEST_F(CopyFaultsTest, AFileThatSomebodyElseMadeWhereALinkLeadsGetsNoSetIdBits) {
  const mode_t before = ::umask(022);
  ASSERT_EQ(::chmod(from_.c_str(), 06755), 0);
  ASSERT_EQ(::symlink("target", to_.c_str()), 0);
  EXPECT_EQ(copy({.isAnothers = true}), 1);
  EXPECT_EQ(modeOf(dir_ / "target"), 0755U);
  ::umask(before);
}

TEST_F(CopyFaultsTest, ACancellationWaitsUntilBothFilesAreClosed) {
  KES_SKIP_UNDER_SANITIZERS("does not follow the unwinding of a cancelled thread");
  int result = 7;
  std::function<void()> body = [&] { result = copy({.lastRead = 1, .cancelsItself = true}); };
  pthread_t thread{};
  const auto work = [](void* arg) -> void* {
    (*static_cast<std::function<void()>*>(arg))();
    ::pthread_testcancel();
    return nullptr;
  };
  ASSERT_EQ(::pthread_create(&thread, nullptr, work, &body), 0);
  void* end = nullptr;
  ASSERT_EQ(::pthread_join(thread, &end), 0);
  EXPECT_EQ(end, PTHREAD_CANCELED);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(done_.closes, 2);
}

}  // namespace
