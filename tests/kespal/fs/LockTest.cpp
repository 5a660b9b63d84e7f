#include "kespal/fs/Lock.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <thread>

#include "kespal/error/OsError.h"
#include "kespal/fs/DyingWithoutMemory.h"
#include "kespal/fs/StreamFile.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

using test::Call;
using test::once;
using test::Raised;
using test::raisedBy;
using test::Refuse;
using test::TempDir;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr const char* site = "src/os/posix/fs/Lock";

/// flock(1) in another process, holding a lock on a file from its first output on until told to stop.
class Peer {
 public:
  Peer(const std::string& path, const std::string& option) {
    const std::string command = "exec flock " + option + " '" + path + "' -c 'echo held; read line'";
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(in[0], 0);
      ::dup2(out[1], 1);
      ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
      ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    stop_ = in[1];
    char byte = 0;
    holds_ = ::read(out[0], &byte, 1) == 1;
    ::close(out[0]);
  }
  ~Peer() { stop(); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  bool holds() const { return holds_; }
  void stop() {
    if (stop_ == -1) return;
    ::close(stop_);
    stop_ = -1;
    ::waitpid(pid_, nullptr, 0);
  }

 private:
  pid_t pid_ = -1;
  int stop_ = -1;
  bool holds_ = false;
};

/// Whether flock(1) gets the lock at once.
bool peerGets(const std::string& path, const std::string& option) {
  return std::system(("flock -n " + option + " '" + path + "' true").c_str()) == 0;
}

class FileLockTest : public ::testing::Test {
 protected:
  FileLockTest() {
    file_.open(path_.c_str(), File::READ_WRITE, File::CREATE);
    lock_.set(file_.fd());
  }

  const TempDir folder_;
  const std::string path_ = folder_ / "file";
  StreamFile file_;
  Lock lock_;
};

TEST_F(FileLockTest, AWriteLockKeepsAllOthersOut) {
  lock_.writeLock();
  EXPECT_FALSE(peerGets(path_, "-s"));
  EXPECT_FALSE(peerGets(path_, "-x"));
  lock_.unlock();
  EXPECT_TRUE(peerGets(path_, "-x"));
}

TEST_F(FileLockTest, AReadLockIsSharedWithOtherReaders) {
  lock_.readLock();
  EXPECT_TRUE(peerGets(path_, "-s"));
  EXPECT_FALSE(peerGets(path_, "-x"));
  lock_.unlock();
  EXPECT_TRUE(peerGets(path_, "-x"));
}

TEST_F(FileLockTest, TryingRespectsAWriter) {
  Peer peer(path_, "-x");
  ASSERT_TRUE(peer.holds());
  EXPECT_FALSE(lock_.tryReadLock());
  EXPECT_FALSE(lock_.tryWriteLock());
  peer.stop();
  EXPECT_TRUE(lock_.tryWriteLock());
  EXPECT_FALSE(peerGets(path_, "-s"));
}

TEST_F(FileLockTest, TryingRespectsAReader) {
  Peer peer(path_, "-s");
  ASSERT_TRUE(peer.holds());
  EXPECT_FALSE(lock_.tryWriteLock());
  EXPECT_TRUE(lock_.tryReadLock());
  peer.stop();
  EXPECT_TRUE(lock_.tryWriteLock()) << "our own read lock becomes a write lock";
}

TEST_F(FileLockTest, AnotherOpenOfTheSameFileIsAnotherHolder) {
  StreamFile second;
  second.open(path_.c_str(), File::READ);
  Lock other;
  other.set(second.fd());
  EXPECT_TRUE(lock_.tryWriteLock());
  EXPECT_FALSE(other.tryWriteLock());
  EXPECT_FALSE(other.tryReadLock());
  lock_.unlock();
  EXPECT_TRUE(other.tryWriteLock());
}

TEST_F(FileLockTest, DuplicatedDescriptorsShareTheLockUntilTheLastIsClosed) {
  const int duplicate = ::fcntl(file_.fd(), F_DUPFD_CLOEXEC, 0);
  Lock same;
  same.set(duplicate);
  lock_.writeLock();
  EXPECT_TRUE(same.tryWriteLock());
  file_.close();
  EXPECT_FALSE(peerGets(path_, "-x"));
  ::close(duplicate);
  EXPECT_TRUE(peerGets(path_, "-x"));
}

/// Waits until another thread sits in flock(), as the kernel sees it.
bool waitsInFlock(pid_t thread) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < limit) {
    std::ifstream state("/proc/self/task/" + std::to_string(thread) + "/syscall");
    long number = -1;
    if (state >> number && number == SYS_flock) return true;
    std::this_thread::yield();
  }
  return false;
}

class BlockingLockTest : public FileLockTest, public ::testing::WithParamInterface<bool> {
 protected:
  void take() const { GetParam() ? lock_.writeLock() : lock_.readLock(); }
};

TEST_P(BlockingLockTest, TakingWaitsForTheHolder) {
  Peer peer(path_, "-x");
  ASSERT_TRUE(peer.holds());
  std::atomic<pid_t> waiter = 0;
  std::atomic<bool> taken = false;
  std::thread thread([&] {
    waiter = ::gettid();
    take();
    taken = true;
  });
  while (waiter == 0) std::this_thread::yield();
  EXPECT_TRUE(waitsInFlock(waiter));
  EXPECT_FALSE(taken);
  peer.stop();
  thread.join();
  EXPECT_TRUE(taken);
  EXPECT_FALSE(peerGets(path_, "-x"));
}

TEST_P(BlockingLockTest, ASignalHandlerEndsTheWait) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);
  const Peer peer(path_, "-x");
  ASSERT_TRUE(peer.holds());
  std::atomic<bool> done = false;
  const pthread_t waiter = ::pthread_self();
  std::thread signals([&] {
    while (!done) {
      ::pthread_kill(waiter, SIGUSR1);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  const Raised raised = raisedBy([&] { take(); });
  done = true;
  signals.join();
  EXPECT_EQ(raised, (Raised{"kes::OsError", EINTR, "", site, GetParam() ? "writeLock" : "readLock"}));
}

INSTANTIATE_TEST_SUITE_P(BothKinds, BlockingLockTest, ::testing::Bool(),
                         [](const auto& kind) { return kind.param ? "Write" : "Read"; });

TEST_F(FileLockTest, OnlyOtherHoldersMakeTryingFalse) {
  {
    const Refuse failing(Call::flock, EWOULDBLOCK);
    EXPECT_FALSE(lock_.tryReadLock());
    EXPECT_FALSE(lock_.tryWriteLock());
  }
  for (const int errnum : {EBADF, EINTR, EINVAL, ENOLCK}) {
    const Refuse failing(Call::flock, errnum);
    EXPECT_EQ(raisedBy([&] { lock_.tryReadLock(); }),
              (Raised{"kes::OsError", errnum, "", site, "tryReadLock"}));
    EXPECT_EQ(raisedBy([&] { lock_.tryWriteLock(); }),
              (Raised{"kes::OsError", errnum, "", site, "tryWriteLock"}));
  }
}

TEST_F(FileLockTest, TakingAndGivingBackRaiseEveryError) {
  for (const int errnum : {EBADF, EINTR, EINVAL, ENOLCK, EWOULDBLOCK}) {
    const Refuse failing(Call::flock, errnum);
    EXPECT_EQ(raisedBy([&] { lock_.readLock(); }), (Raised{"kes::OsError", errnum, "", site, "readLock"}));
    EXPECT_EQ(raisedBy([&] { lock_.writeLock(); }), (Raised{"kes::OsError", errnum, "", site, "writeLock"}));
    EXPECT_EQ(raisedBy([&] { lock_.unlock(); }), (Raised{"kes::OsError", errnum, "", site, "unlock"}));
  }
}

TEST_F(FileLockTest, ALockWithoutDescriptorFails) {
  const Lock none;
  EXPECT_EQ(raisedBy([&] { none.readLock(); }).errnum, EBADF);
  EXPECT_EQ(raisedBy([&] { none.tryWriteLock(); }).errnum, EBADF);
  EXPECT_EQ(raisedBy([&] { none.unlock(); }).errnum, EBADF);
}

TEST_F(FileLockTest, AClosedDescriptorFails) {
  file_.close();
  EXPECT_EQ(raisedBy([&] { lock_.readLock(); }), (Raised{"kes::OsError", EBADF, "", site, "readLock"}));
}

TEST_F(FileLockTest, MinusOneIsRefused) {
  EXPECT_EQ(raisedBy([&] { lock_.set(-1); }),
            (Raised{"kes::UsageError", 0, "assigned fs::Lock an invalid file", site, "set"}));
  lock_.writeLock();
  EXPECT_FALSE(peerGets(path_, "-x")) << "the earlier descriptor stays";
}

TEST_F(FileLockTest, UnlockingWhatIsNotLockedIsNoError) {
  EXPECT_EQ(raisedBy([&] { lock_.unlock(); }), Raised{});
}

TEST_F(FileLockTest, AStandardStreamLendsItsDescriptor) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(std::fopen(path_.c_str(), "r"), std::fclose);
  const Lock lock(stream.get());
  lock.writeLock();
  EXPECT_FALSE(peerGets(path_, "-s"));
  lock.unlock();
  EXPECT_TRUE(peerGets(path_, "-s"));
}

TEST_F(FileLockTest, AStreamWithoutDescriptorIsRefused) {
  char memory[8] = {};
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(::fmemopen(memory, sizeof memory, "w"),
                                                               std::fclose);
  EXPECT_EQ(raisedBy([&] { const Lock lock(stream.get()); }).text, "assigned fs::Lock an invalid file");
  EXPECT_EQ(raisedBy([&] { const Lock lock(static_cast<std::FILE*>(nullptr)); }).text,
            "assigned fs::Lock an invalid file");
}

TEST_F(FileLockTest, AScopedLockGivesBackAtTheEndOfItsScope) {
  lock_.writeLock();
  {
    const ScopedLock scoped(lock_);
    EXPECT_FALSE(peerGets(path_, "-x"));
  }
  EXPECT_TRUE(peerGets(path_, "-x"));
}

TEST_F(FileLockTest, AScopedLockTakesNothingByItself) {
  const ScopedLock scoped(lock_);
  EXPECT_TRUE(peerGets(path_, "-x"));
}

TEST_F(FileLockTest, AScopedLockReportsWithoutMemoryAndThroughABrokenStream) {
  const auto make = [&] { return new ScopedLock(lock_); };
  test::expectReportOfDying(Call::flock, make, "Exception caught while destroying file lock:\n");
}

TEST_F(FileLockTest, AScopedLockReportsAFailureOnStandardError) {
  const auto child = test::inChild([&] {
    const Refuse failing(Call::flock, ENOLCK);
    const ScopedLock scoped(lock_);
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_THAT(child.err, StartsWith("Exception caught while destroying file lock:\n\n#1)\n"
                                    "\tException occured at \"src/os/posix/fs/Lock:"));
  EXPECT_THAT(child.err, HasSubstr(" (unlock)\""));
  EXPECT_THAT(child.err, EndsWith("\tSystem/Library call error: " + OsError(ENOLCK).text() + "\n\n"));
}

TEST_F(FileLockTest, TheEndOfAProcessGivesItsLockBack) {
  const auto child = test::inChild([&] {
    StreamFile own;
    own.open(path_.c_str(), File::WRITE);
    Lock lock;
    lock.set(own.fd());
    lock.writeLock();
    ::_exit(0);
    return 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_TRUE(lock_.tryWriteLock());
}

TEST_F(FileLockTest, EveryOperationIsOneSystemCall) {
  const test::CallTrace trace;
  lock_.readLock();
  lock_.tryReadLock();
  lock_.writeLock();
  lock_.tryWriteLock();
  lock_.unlock();
  EXPECT_THAT(trace.calls(), ::testing::ElementsAre("flock", "flock", "flock", "flock", "flock"));
}

}  // namespace
}  // namespace kes::fs
