#include "kespal/UnhandledException.h"

#include <cstdlib>
#include <exception>
#include <iostream>

#include "kespal/error/StaticError.h"
#include "support/ForkedChild.h"

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

void fail() { throw std::runtime_error("nobody caught it"); }

TEST(UnhandledExceptionTest, ATerminateHandlerCanReportWhatNobodyCaught) {
  // NOLINTNEXTLINE(bugprone-exception-escape): that it escapes is the test
  const ChildResult result = inChild([]() noexcept -> int {
    std::set_terminate([] {
      kespal_unhandled_exception();
      std::_Exit(3);
    });
    fail();
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 3);
  EXPECT_EQ(result.err, title + "std::exception:\n\nnobody caught it\n");
}

TEST(UnhandledExceptionTest, TerminationInTheMiddleOfUnwindingIsReportedOnce) {
  struct Terminator {
    ~Terminator() { std::terminate(); }
  };
  const ChildResult result = inChild([] {
    std::set_terminate([] {
      kespal_unhandled_exception();
      std::_Exit(3);
    });
    Terminator terminator;
    throw std::runtime_error("on its way");
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 3);
  EXPECT_EQ(result.err, title + "unknown exception type\n");
}

}  // namespace
}  // namespace kes
