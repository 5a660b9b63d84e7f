#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "support/EveryFailure.h"
#include "support/Sanitizer.h"

// What the scenarios of the other files rely on: that a fault is found, and called by its name.

namespace kes {
namespace {

using test::Call;
using test::complaintsAbout;
using test::raises;
using test::Scenario;
using test::Stage;
using ::testing::Contains;
using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

/// For a run that hangs by intent. The address sanitizer takes its time to tell of a leak.
constexpr std::chrono::seconds limit(test::isSanitized ? 10 : 1);

int openNothing() { return check(KES_HERE, ::open("/dev/null", O_RDONLY | O_CLOEXEC)); }

/// A scenario whose operation gives a descriptor.
Scenario opening(int (*open)()) {
  return {.operations = {"open"},
          .raises = {raises("kes::OsError")},
          .play =
              [open](Stage& stage) {
                int fd = -1;
                stage.act([&] { fd = open(); });
                if (fd >= 0) ::close(fd);
              },
          .limit = limit};
}

/// A scenario of an operation that gives nothing back.
Scenario doing(void (*operation)()) {
  return {.operations = {"do"},
          .raises = {raises("kes::OsError")},
          .play = [operation](Stage& stage) { stage.act(operation); },
          .limit = limit};
}

TEST(EngineTest, WhatHandlesEveryFailureSurvives) {
  EXPECT_THAT(complaintsAbout(opening(openNothing)), IsEmpty());
}

TEST(EngineTest, ADescriptorThatIsLeftByAFailureIsFound) {
  const auto complaints = complaintsAbout(opening([] {
    const int fd = openNothing();
    if (::chdir(".") == -1 && errno == EIO) throw OsError(errno);
    return fd;
  }));
  EXPECT_THAT(complaints,
              Contains(StartsWith("open: chdir number 1 refused with EIO:\n  left behind: a descriptor")));
  EXPECT_THAT(complaints, Each(HasSubstr("refused with EIO")));
}

TEST(EngineTest, AnotherErrorThanTheOneOfTheCallIsFound) {
  EXPECT_THAT(complaintsAbout(doing([] {
                if (::chdir(".") == -1) throw OsError(errno == EACCES ? EPERM : errno);
              })),
              Contains(AllOf(HasSubstr("refused with EACCES"), HasSubstr("not declared: kes::OsError 1 "))));
}

TEST(EngineTest, AnErrorOfAnotherClassIsFound) {
  EXPECT_THAT(complaintsAbout(doing([] {
                if (::chdir(".") == -1 && errno == ENOMEM) throw UsageError("no");
              })),
              Contains(AllOf(HasSubstr("refused with ENOMEM"), HasSubstr("not declared: kes::UsageError"))));
}

TEST(EngineTest, AnAllocationThatIsTakenForGrantedIsFound) {
  EXPECT_THAT(
      complaintsAbout(doing([] { std::free(std::strcpy(static_cast<char*>(std::malloc(9)), "text")); })),
      Contains(StartsWith("do: malloc number 1 refused with ENOMEM:\n   ended")));
}

TEST(EngineTest, AnExceptionThatNothingMayThrowIsFound) {
  EXPECT_THAT(complaintsAbout(doing([]() noexcept { delete new int; })),
              Contains(StartsWith("do: operator new number 1 refused with ENOMEM:\n   ended by Aborted")));
}

TEST(EngineTest, WhatWaitsForEverIsFound) {
  EXPECT_THAT(complaintsAbout(doing([] {
                while (::chdir(".") == -1 && errno == EIO) {
                }
              })),
              Contains(StartsWith("do: chdir number 1 refused with EIO, and all after it:\n   hangs")));
}

TEST(EngineTest, AnInterruptionThatIsNotExpectedIsFound) {
  EXPECT_THAT(
      complaintsAbout(doing([] {
        if (::ftruncate(-1, 0) == -1 && errno == EINTR) throw UsageError("no");
      })),
      Contains(StartsWith("do: ftruncate number 1 refused with EINTR:\n  raised what is not declared")));
}

TEST(EngineTest, AShortTransferThatIsTakenForAWholeOneIsFound) {
  const Scenario writing{.operations = {"write"}, .play = [](Stage& stage) {
                           int ends[2];
                           stage.check(::pipe(ends) == 0, "there is a pipe");
                           stage.act([&] { return ::write(ends[1], "text", 4) != -1; });
                           char read[5] = "";
                           stage.check(!stage.succeeded() || ::read(ends[0], read, 4) == 4, "all is written");
                           ::close(ends[0]);
                           ::close(ends[1]);
                         }};
  EXPECT_THAT(complaintsAbout(writing),
              Contains(StartsWith("write: write number 1 moves half:\n  does not hold: all is written")));
}

TEST(EngineTest, ADescriptorThatACancellationLeavesIsFound) {
  KES_SKIP_UNDER_SANITIZERS("does not unwind a cancelled thread");
  EXPECT_THAT(complaintsAbout(opening([] {
                const int fd = openNothing();
                char ignored;
                check(KES_HERE, static_cast<int>(::read(fd, &ignored, 1)));
                return fd;
              })),
              Contains(StartsWith("open: cancelled at read number 1:\n  left behind: a descriptor")));
}

TEST(EngineTest, ALockThatAForkedChildWaitsForIsFound) {
  KES_SKIP_UNDER_SANITIZERS("makes locks of its own");
  static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  EXPECT_THAT(complaintsAbout(doing([] {
                ::pthread_mutex_lock(&lock);
                ::pthread_mutex_unlock(&lock);
              })),
              Contains(StartsWith("do: forked after pthread_mutex_lock number 1:\n  the child hangs")));
}

TEST(EngineTest, AnEndOfTheProgramIsFoundUnlessItMayEndThen) {
  Scenario ending = doing([] {
    if (::chdir(".") != 0) std::abort();
  });
  EXPECT_THAT(complaintsAbout(ending),
              Contains(StartsWith("do: chdir number 1 refused with EACCES:\n   ended by Aborted")));
  ending.mayEnd = {Call::chdir};
  EXPECT_THAT(complaintsAbout(ending), IsEmpty());
  ending.mayEnd = {Call::open};
  EXPECT_THAT(complaintsAbout(ending), Contains(HasSubstr("ended by Aborted")));
}

TEST(EngineTest, AForkedChildPlaysWhatItIsGiven) {
  KES_SKIP_UNDER_SANITIZERS("makes locks of its own");
  static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  Scenario locking = doing([] {
    ::pthread_mutex_lock(&lock);
    ::pthread_mutex_unlock(&lock);
  });
  locking.playForked = [](Stage& stage) { stage.act([] {}); };
  EXPECT_THAT(complaintsAbout(locking), IsEmpty());
  locking.playForked = [](Stage& stage) { stage.check(false, "what it is given"); };
  EXPECT_THAT(complaintsAbout(locking), Contains(HasSubstr("does not hold: what it is given")));
}

TEST(EngineTest, AThreadAndAHandlerThatAreLeftAreFound) {
  EXPECT_THAT(complaintsAbout(doing([] {
                pthread_t thread{};
                checkCode(KES_HERE,
                          ::pthread_create(
                              &thread, nullptr, [](void*) -> void* { return ::pause(), nullptr; }, nullptr));
                ::signal(SIGUSR1, SIG_IGN);
              })),
              Contains(HasSubstr("left behind: a thread another handler of signal 10")));
}

TEST(EngineTest, MemoryThatIsLeftByAFailureIsFound) {
  if (!test::isSanitized) GTEST_SKIP() << "the address sanitizer finds it";
  EXPECT_THAT(complaintsAbout(doing([] {
                auto* const left = new std::string(100, 'x');
                check(KES_HERE, ::chdir("."));
                delete left;
              })),
              Contains(HasSubstr("left behind: memory")));
}

}  // namespace
}  // namespace kes
