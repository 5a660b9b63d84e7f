#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <new>
#include <optional>
#include <stdexcept>
#include <thread>

#include "kespal/error/StaticError.h"
#include "kespal/kespal.h"
#include "kespal/signal/Mask.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"

namespace kes {
namespace {

/// What a program with a runtime object writes when `body` makes it terminate.
test::ChildResult terminatedBy(const std::function<void()>& body) {
  return test::inChild([&body] {
    const KesPal runtime(false, false, Locale::System, nullptr);
    std::thread(body).join();  // nothing catches what leaves a thread
    return 0;
  });
}

constexpr const char* lastWords = "Terminating program\n\n";

TEST(TerminateTest, AnUncaughtLibraryErrorIsReportedWithItsStackText) {
  const auto child = terminatedBy([] {
    raiseAt({"src/some/File", 12, "operation"}, RuntimeError("unexpected"));
  });
  EXPECT_EQ(child.signal(), SIGABRT);
  EXPECT_EQ(child.err,
            ">>> unhandled iOS exception occured <<<\n"
            "kes::Exception:\n\n#1)\n\tException occured at \"src/some/File:12 (operation)\"\n\t\n"
            "\tRuntime error occured. unexpected\n\n" +
                std::string(lastWords));
}

TEST(TerminateTest, AnUncaughtStandardExceptionIsReportedWithItsText) {
  const auto child = terminatedBy([] { throw std::runtime_error("plain"); });
  EXPECT_EQ(child.signal(), SIGABRT);
  EXPECT_EQ(child.err,
            ">>> unhandled iOS exception occured <<<\nstd::exception:\n\nplain\n" + std::string(lastWords));
}

TEST(TerminateTest, AnUncaughtLackOfMemoryIsReportedWithItsText) {
  const auto child = terminatedBy([] {
    static std::optional<test::NoMemory> starving;
    starving.emplace();
    throw std::bad_alloc();
  });
  EXPECT_EQ(child.signal(), SIGABRT);
  EXPECT_EQ(child.err, ">>> unhandled iOS exception occured <<<\nstd::exception:\n\nstd::bad_alloc\n" +
                           std::string(lastWords));
}

TEST(TerminateTest, AnUncaughtLibraryErrorWithoutMemoryIsReportedByItsKind) {
  const auto child = terminatedBy([] {
    static std::optional<test::NoMemory> starving;
    starving.emplace();
    raiseAt(KES_HERE, RuntimeError("unexpected"));
  });
  EXPECT_EQ(child.signal(), SIGABRT);
  EXPECT_EQ(child.err,
            ">>> unhandled iOS exception occured <<<\nkes::Exception:\n"
            "(no memory left for the rest of this report)\n" +
                std::string(lastWords));
}

TEST(TerminateTest, AnythingElseIsAnUnknownExceptionType) {
  const auto child = terminatedBy([] { throw 42; });
  EXPECT_EQ(child.signal(), SIGABRT);
  EXPECT_EQ(child.err,
            ">>> unhandled iOS exception occured <<<\nunknown exception type\n" + std::string(lastWords));
}

TEST(TerminateTest, ATerminationWithoutAnExceptionHasAnUnknownReason) {
  const auto child = terminatedBy([] { std::terminate(); });
  EXPECT_EQ(child.signal(), SIGABRT);
  EXPECT_EQ(child.err, "Program terminated for an unknown reason (e.g. pure virtual method call)\n" +
                           std::string(lastWords));
}

TEST(TerminateTest, ATerminationWhileAnExceptionIsHandledReportsThatOne) {
  const auto child = terminatedBy([] {
    try {
      throw std::runtime_error("being handled");
    } catch (const std::exception&) {
      std::terminate();
    }
  });
  EXPECT_EQ(child.err, ">>> unhandled iOS exception occured <<<\nstd::exception:\n\nbeing handled\n" +
                           std::string(lastWords));
}

TEST(TerminateTest, ASignalThatIsBlockedDoesNotKeepTheProgramAlive) {
  const auto child = terminatedBy([] {
    signal::Mask::call({SIGABRT}, SIG_BLOCK);
    std::terminate();
  });
  EXPECT_EQ(child.signal(), SIGABRT);
}

TEST(TerminateTest, AStandardErrorThatNobodyReadsDoesNotChangeHowTheProgramEnds) {
  const auto child = terminatedBy([] {
    signal::Mask::call({SIGPIPE}, SIG_UNBLOCK);
    int ends[2];
    if (::pipe(ends) == -1 || ::dup2(ends[1], STDERR_FILENO) == -1) return;
    ::close(ends[0]);
    std::terminate();
  });
  EXPECT_EQ(child.signal(), SIGABRT) << child.exitCode();
}

TEST(TerminateTest, AStandardErrorThatTakesNoMoreDoesNotChangeHowTheProgramEnds) {
  const auto child = terminatedBy([] {
    const int file = ::fileno(std::tmpfile());
    const rlimit nothing{0, 0};
    if (::dup2(file, STDERR_FILENO) == -1 || ::setrlimit(RLIMIT_FSIZE, &nothing) == -1) return;
    std::terminate();
  });
  EXPECT_EQ(child.signal(), SIGABRT) << child.exitCode();
}

TEST(TerminateTest, TheVariableKeepsTheHandlerFromBeingInstalled) {
  const auto child = test::inChild([] {
    ::setenv("KESPAL_NO_TERMINATE_HANDLER", "", 1);
    const auto before = std::get_terminate();
    const KesPal runtime(false, false, Locale::System, nullptr);
    return std::get_terminate() == before ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(TerminateTest, AnExceptionIsActiveWhileItIsThrownOrHandled) {
  struct Probe {
    bool& active;
    ~Probe() { active = exceptionActive(); }
  };
  bool whileThrown = false;
  EXPECT_FALSE(exceptionActive());
  try {
    const Probe probe{whileThrown};
    throw 1;
  } catch (int) {
    EXPECT_TRUE(exceptionActive());
  }
  EXPECT_TRUE(whileThrown);
  EXPECT_FALSE(exceptionActive());
}

}  // namespace
}  // namespace kes
