#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <thread>

#include "kesos/Ipc.h"
#include "kesos/processes.h"
#include "kespal/kespal.h"
#include "support/ForkedChild.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

// Children of KesOsCreateProcessAsyn that cannot become their program. They end by exit(), in the middle of
// the parent's buffers, threads and handlers.
namespace {

using namespace kes::test;

/// The exit code of a child whose program does not exist; -1 when there was no child.
int exitCodeOfFailedChild() {
  KesOsProcess* process = nullptr;
  unsigned int exitCode = 77;
  if (KesOsCreateProcessAsyn("kes-no-such-program", 0, &process) != 1) return -1;
  return KesOsProcessWait(process, &exitCode) == 1 ? static_cast<int>(exitCode) : -1;
}

TEST(FailedChildTest, TextThatTheParentHasBufferedIsWrittenOnce) {
  const ChildResult result = inChild([] {
    std::ios::sync_with_stdio(false);
    std::cout << "by stream, ";
    std::printf("by stdio");
    return exitCodeOfFailedChild();
  });
  EXPECT_EQ(result.exitCode(), 127);
  EXPECT_EQ(result.out, "by stream, by stdio");
}

TEST(FailedChildTest, InputThatTheParentHasBufferedIsNotRewound) {
  const TempDir dir;
  writeFile(dir / "input", "one\ntwo\nthree\n");
  const ChildResult result = inChild([&dir] {
    if (std::freopen((dir / "input").c_str(), "r", stdin) == nullptr || std::getchar() != 'o') return 1;
    const off_t before = ::lseek(STDIN_FILENO, 0, SEEK_CUR);
    if (exitCodeOfFailedChild() != 127) return 2;
    return before == 14 && ::lseek(STDIN_FILENO, 0, SEEK_CUR) == before ? 0 : 3;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST(FailedChildTest, AThreadThatWaitsForAKeyHoldsUpNobody) {
  const ChildResult result = inChild([] {
    int ends[2];
    if (::pipe(ends) != 0 || ::dup2(ends[0], STDIN_FILENO) != STDIN_FILENO) return 1;
    std::thread reader([] { std::getchar(); });
    const auto waits = [] {
      if (::ftrylockfile(stdin) != 0) return true;
      ::funlockfile(stdin);
      return false;
    };
    if (!eventually(waits)) return 2;
    ::alarm(120);  // ends a process that hangs
    const int exitCode = exitCodeOfFailedChild();
    if (::write(ends[1], "Q", 1) != 1) return 3;
    reader.join();
    return exitCode;
  });
  EXPECT_EQ(result.exitCode(), 127);
}

/// What an exit handler found.
struct Found {
  bool ran = false;
  int descriptors = 0;
};
Found* found = nullptr;

void lookForDescriptors() {
  found->ran = true;
  for (int fd = 0; fd < 1024; ++fd) found->descriptors += ::fcntl(fd, F_GETFD) != -1 ? 1 : 0;
}

/// Lets a child fail after `prepare`; 0 when its exit handlers ran and had no descriptor.
int failWithoutDescriptors(const std::function<bool()>& prepare) {
  const Shared<Found> shared;
  found = &*shared;
  if (std::atexit(lookForDescriptors) != 0 || !prepare()) return 1;
  if (exitCodeOfFailedChild() != 127) return 2;
  if (!found->ran) return 3;
  return found->descriptors == 0 ? 0 : 4;
}

TEST(FailedChildTest, ExitHandlersRunAndHaveNoDescriptor) {
  const ChildResult result =
      inChild([] { return failWithoutDescriptors([] { return ::dup2(1, 500) == 500 && ::dup(1) > 2; }); });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST(FailedChildTest, ADetachedChildRunsNoExitHandlers) {
  const Shared<Found> shared;
  found = &*shared;
  const ChildResult result = inChild([] {  // which ends when the detached child has closed its output
    if (std::atexit(lookForDescriptors) != 0) return 1;
    return KesOsCreateProcessAsyn("kes-no-such-program", 0, nullptr) == 1 ? 0 : 2;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_FALSE(found->ran);
}

TEST(FailedChildTest, AProcessWithoutAFreeDescriptorLosesThemAllTheSame) {
  KES_SKIP_UNDER_SANITIZERS("looks for leaks at exit, and for that needs descriptors and files");
  const ChildResult result = inChild([] {
    return failWithoutDescriptors([] {
      const rlimit few{64, 64};
      if (::setrlimit(RLIMIT_NOFILE, &few) != 0) return false;
      while (::dup(1) >= 0) {
      }
      return errno == EMFILE;
    });
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST(FailedChildTest, WhereTheSystemListsNoDescriptorsTheyAreClosedInTurn) {
  KES_SKIP_UNDER_SANITIZERS("looks for leaks at exit, and for that needs descriptors and files");
  if (::geteuid() != 0) GTEST_SKIP() << "only root leaves the file system";
  const TempDir dir;
  const ChildResult result = inChild([&dir] {
    return failWithoutDescriptors([&dir] {
      const rlimit limit{512, 512};
      return ::setrlimit(RLIMIT_NOFILE, &limit) == 0 && ::dup2(1, 500) == 500 &&
             ::chroot(dir.path().c_str()) == 0;
    });
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST(FailedChildTest, AThreadThatWasCancelledBeforeTheForkIsNotUnwoundInTheChild) {
  KES_SKIP_UNDER_SANITIZERS(
      "has cancellations of its own, and looks for leaks at exit in a thread without others");
  int exitCode = -1;
  const auto start = [](void* arg) -> void* {
    ::pthread_cancel(::pthread_self());
    KesOsProcess* process = nullptr;
    KesOsCreateProcessAsyn("kes-no-such-program", 0, &process);
    int ignored = 0;
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &ignored);
    unsigned int status = 77;
    if (KesOsProcessWait(process, &status) == 1) *static_cast<int*>(arg) = static_cast<int>(status);
    return nullptr;
  };
  pthread_t thread{};
  ASSERT_EQ(::pthread_create(&thread, nullptr, start, &exitCode), 0);
  ASSERT_EQ(::pthread_join(thread, nullptr), 0);
  EXPECT_EQ(exitCode, 127);
}

TEST(FailedChildTest, AStaticRuntimeObjectOfTheParentLeavesTheExitCodeAlone) {
  const ChildResult result = inChild([] {
    static const kes::KesPal runtime(true, false, kes::Locale::System);
    ::alarm(120);  // ends a process that hangs
    return exitCodeOfFailedChild();
  });
  EXPECT_EQ(result.exitCode(), 127);
  EXPECT_EQ(result.err, "");
}

}  // namespace
