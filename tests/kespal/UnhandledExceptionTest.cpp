#include "kespal/UnhandledException.h"

#include <cstdlib>
#include <exception>
#include <iostream>
#include <new>
#include <stdexcept>
#include <streambuf>

#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"
#include "support/Throwing.h"

namespace kes {
namespace {

using test::ChildResult;
using test::inChild;

/// What the reporter writes while the exception that `action` throws is being handled.
template <typename Action>
std::string reportOf(Action action) {
  const ChildResult result = inChild([&action] {
    try {
      action();
    } catch (...) {
      kespal_unhandled_exception();
    }
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.out, "");
  return result.err;
}

const std::string title = ">>> unhandled iOS exception occured <<<\n";

TEST(UnhandledExceptionTest, ALibraryErrorIsReportedWithItsStackText) {
  RuntimeError cause("the cause");
  UsageError error("no handle");
  error.setNext(cause);
  EXPECT_EQ(reportOf([&error] { error.raise(); }), title +
                                                       "kes::Exception:\n"
                                                       "\n#1)\n\tUsage error occured. no handle\n"
                                                       "\n#2)\n\tRuntime error occured. the cause\n\n");
}

TEST(UnhandledExceptionTest, AStandardExceptionIsReportedWithItsText) {
  EXPECT_EQ(reportOf([] { throw std::runtime_error("it failed"); }),
            title + "std::exception:\n\nit failed\n");
}

TEST(UnhandledExceptionTest, AnythingElseIsReportedAsUnknown) {
  EXPECT_EQ(reportOf([] { throw 42; }), title + "unknown exception type\n");
}

/// What the reporter writes about what nobody catches in `action`, which thereby ends a child.
template <typename Action>
ChildResult endedBy(Action action, std::terminate_handler handler) {
  // NOLINTNEXTLINE(bugprone-exception-escape): that it escapes is the test
  return inChild([action, handler]() noexcept -> int {
    std::set_terminate(handler);
    action();
    return 0;
  });
}

[[noreturn]] void reportAndEnd() {
  kespal_unhandled_exception();
  std::_Exit(3);
}

[[noreturn]] void reportAndEndWithoutMemory() {
  const test::NoMemory starving;
  reportAndEnd();
}

TEST(UnhandledExceptionTest, WithoutMemoryTheWantOfItIsReported) {
  const ChildResult result = endedBy([] { throw std::bad_alloc(); }, reportAndEndWithoutMemory);
  EXPECT_EQ(result.exitCode(), 3);
  EXPECT_EQ(result.err, title + "std::exception:\n\nstd::bad_alloc\n");
}

TEST(UnhandledExceptionTest, WithoutMemoryALibraryErrorIsReportedByAShorterText) {
  const ChildResult result = endedBy([] { OsError(EIO).raise(); }, reportAndEndWithoutMemory);
  EXPECT_EQ(result.exitCode(), 3);
  EXPECT_EQ(result.err, title + "kes::Exception:\n(no memory left for the rest of this report)\n");
}

TEST(UnhandledExceptionTest, AStandardExceptionWithoutATextIsReportedAllTheSame) {
  const ChildResult result = endedBy([] { throw test::Speechless(); }, reportAndEnd);
  EXPECT_EQ(result.exitCode(), 3);
  EXPECT_EQ(result.err, title + "std::exception:\n\n\n");
}

TEST(UnhandledExceptionTest, AStreamThatThrowsAtEveryWriteKeepsNothingBack) {
  struct Refusing : std::streambuf {
    std::streamsize xsputn(const char*, std::streamsize) override { throw std::runtime_error("no"); }
    int_type overflow(int_type) override { throw std::runtime_error("no"); }
  };
  const ChildResult result = endedBy(
      [] {
        static Refusing refusing;
        std::cerr.rdbuf(&refusing);
        std::cerr.exceptions(std::ios::badbit | std::ios::failbit);
        UsageError("no handle").raise();
      },
      reportAndEnd);
  EXPECT_EQ(result.exitCode(), 3);
  EXPECT_EQ(result.err, title + "kes::Exception:\n\n#1)\n\tUsage error occured. no handle\n\n");
}

void fail() { throw std::runtime_error("nobody caught it"); }

TEST(UnhandledExceptionTest, ATerminateHandlerCanReportWhatNobodyCaught) {
  const ChildResult result = endedBy(fail, reportAndEnd);
  EXPECT_EQ(result.exitCode(), 3);
  EXPECT_EQ(result.err, title + "std::exception:\n\nnobody caught it\n");
}

TEST(UnhandledExceptionTest, TerminationInTheMiddleOfUnwindingIsReportedOnce) {
  struct Terminator {
    ~Terminator() { std::terminate(); }
  };
  const ChildResult result = endedBy(
      [] {
        const Terminator terminator;
        throw std::runtime_error("on its way");
      },
      reportAndEnd);
  EXPECT_EQ(result.exitCode(), 3);
  EXPECT_EQ(result.err, title + "unknown exception type\n");
}

}  // namespace
}  // namespace kes
