// Between a fork and a successful exec the child may make system calls only: it has a copy of every lock
// that another thread held at the moment of the fork. Here each allocation and each lock is counted there.
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <new>

#include "kespal/proc/Child.h"
#include "support/ForkedChild.h"
#include "support/TempDir.h"

namespace {

/// What the children of this process have done, in memory that they share with it.
struct Counts {
  std::atomic<int> allocations, locks, execs;
  std::atomic<int> failDup2, failSigmask, failUnlock;  // the error that the call is to fail with
};

Counts& counts() {
  static auto* const shared = static_cast<Counts*>(
      ::mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  return *shared;
}

pid_t g_watched = 0;  // the process whose children are counted

bool isForkedChild() { return g_watched != 0 && ::getpid() != g_watched; }
void noteAllocation() {
  if (isForkedChild()) ++counts().allocations;
}

}  // namespace

extern "C" {
void* __real_malloc(std::size_t);
void* __wrap_malloc(std::size_t size) {
  noteAllocation();
  return __real_malloc(size);
}
int __real_pthread_mutex_lock(pthread_mutex_t*);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  if (isForkedChild()) ++counts().locks;
  return __real_pthread_mutex_lock(mutex);
}
int __real_pthread_mutex_unlock(pthread_mutex_t*);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  const int error = isForkedChild() ? counts().failUnlock.load() : 0;
  return error != 0 ? error : __real_pthread_mutex_unlock(mutex);
}
int __real_pthread_sigmask(int, const sigset_t*, sigset_t*);
int __wrap_pthread_sigmask(int how, const sigset_t* set, sigset_t* before) {
  const int error = isForkedChild() ? counts().failSigmask.load() : 0;
  return error != 0 ? error : __real_pthread_sigmask(how, set, before);
}
int __real_execve(const char*, char* const*, char* const*);
int __wrap_execve(const char* path, char* const* arguments, char* const* environment) {
  if (isForkedChild()) ++counts().execs;
  return __real_execve(path, arguments, environment);
}
int __real_execvp(const char*, char* const*);
int __wrap_execvp(const char* file, char* const* arguments) {
  if (isForkedChild()) ++counts().execs;
  return __real_execvp(file, arguments);
}
int __real_dup2(int, int);
int __wrap_dup2(int from, int to) {
  if (isForkedChild() && counts().failDup2 != 0) {
    errno = counts().failDup2;
    return -1;
  }
  return __real_dup2(from, to);
}
}

// Not inlined: compilers would complain of memory that malloc gave and delete takes.
[[gnu::noinline]] void* operator new(std::size_t size) {
  noteAllocation();
  if (void* memory = __real_malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace kes::proc {
namespace {

class ForkWindowTest : public testing::Test {
 protected:
  void SetUp() override {
    counts().allocations = counts().locks = counts().execs = 0;
    counts().failDup2 = counts().failSigmask = counts().failUnlock = 0;
    Child::init();
    g_watched = ::getpid();
  }
  void TearDown() override { g_watched = 0; }

  static void expectACleanWindow(Child& child, int execs) {
    child.create(false);
    EXPECT_EQ(child.wait(false, {}).status, 0);
    EXPECT_EQ(counts().execs, execs);
    EXPECT_EQ(counts().allocations, 0);
    EXPECT_EQ(counts().locks, 0);
  }
};

TEST_F(ForkWindowTest, WithTheParentsEnvironmentNothingIsAllocatedAndNoLockTaken) {
  Child child({"true"});
  expectACleanWindow(child, 1);
}

TEST_F(ForkWindowTest, WithAnEnvironmentAndASearchOnPathNeither) {
  Child child({"true"});
  child.setEnvironment({"A=1", "B=2"});
  expectACleanWindow(child, 2);
}

TEST_F(ForkWindowTest, WithEverythingElseThatCanBeSetNeither) {
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  Child child({"/bin/true"});
  child.setEnvironment({"A=1"});
  child.setWorkingDirectory("/");
  child.setStdin(null);
  child.setStdout(null);
  child.setStderr(null);
  child.setNewProcessGroup(true);
  expectACleanWindow(child, 1);
  ::close(null);
}

TEST_F(ForkWindowTest, AStreamThatCannotBeDuplicatedIsToldAndTheProgramStartsAllTheSame) {
  const auto result = test::inChild([] {
    counts().failDup2 = EBUSY;
    g_watched = ::getpid();
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    Child child({"/bin/true"});
    child.setStdin(null);
    child.setStdout(null);
    child.setStderr(null);
    child.create(false);
    const int status = child.wait(false, {}).status;
    Child::exit();
    return status;
  });
  const std::string number = std::to_string(EBUSY);
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.err, "Error dup2()'ing stdout: " + number + "\nError dup2()'ing stderr: " + number +
                            "\nError dup2()'ing stdin: " + number + "\n");
}

/// What a child is told on standard error, and ends with, when one of its first steps fails.
test::ChildResult startFailingWith(std::atomic<int>& call) {
  return test::inChild([&call] {
    call = EPERM;
    g_watched = ::getpid();
    Child child({"/bin/echo", "not reached"});
    child.create(false);
    const int status = child.wait(false, {}).status;
    Child::exit();
    return status >> 8;
  });
}

TEST_F(ForkWindowTest, ASignalMaskThatCannotBeRestoredIsToldAndEndsTheChildWith125) {
  const auto result = startFailingWith(counts().failSigmask);
  EXPECT_EQ(result.exitCode(), 125);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, testing::MatchesRegex("In child process [0-9]+ \\(/bin/echo\\):\n\n#1\\)\n(.|\n)*"
                                                "Operation not permitted \\(1\\)\n\n"));
}

// The child must not get back into its parent's frames, which would go on there a second time.
TEST_F(ForkWindowTest, AnInheritedLockThatCannotBeReleasedIsToldAndEndsTheChildWith125) {
  const auto result = startFailingWith(counts().failUnlock);
  EXPECT_EQ(result.exitCode(), 125);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, testing::HasSubstr("include/os/posix/thread/Lock:49 (unlock)"));
}

}  // namespace
}  // namespace kes::proc
