// What only a Mac can show of Foundation; compiled for macOS wherever that is done, run on a Mac.
#import <Foundation/Foundation.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "kespal/UnhandledException.h"
#include "kespal/fs/Path.h"
#include "kespal/fs/StandardPaths.h"
#include "support/ForkedChild.h"

namespace kes {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

std::string text(const fs::Path& path) { return path; }

TEST(NativeStandardPathsTest, TheDirectoriesAreTheOnesThatTheSystemDocuments) {
  EXPECT_THAT(text(fs::StandardPaths::userDataDir()), EndsWith("/Library/Application Support"));
  EXPECT_THAT(text(fs::StandardPaths::documentsDir()), EndsWith("/Documents"));
  EXPECT_THAT(text(fs::StandardPaths::userLogDir()), EndsWith("/Library/Logs"));
  EXPECT_EQ(text(fs::StandardPaths::logDir()), "/Library/Logs");
  EXPECT_THAT(text(fs::StandardPaths::userTempDir()), StartsWith("/"));
}

/// What the reporter logs about what `action` throws; the log also goes to standard error.
template <typename Action>
std::string reportOf(Action action) {
  const test::ChildResult result = test::inChild([&action] {
    try {
      action();
    } catch (...) {
      kespal_unhandled_exception();
    }
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 0);
  return result.err;
}

TEST(NativeReporterTest, AnNSExceptionIsReportedWithNameReasonAndCallStack) {
  const std::string report = reportOf(
      [] { [[NSException exceptionWithName:@"Overrun" reason:@"nothing fits" userInfo:nil] raise]; });
  EXPECT_THAT(report, HasSubstr(">>> unhandled iOS exception occured <<<"));
  EXPECT_THAT(report, HasSubstr("NSException:\n\nObject: Overrun\nReason: nothing fits\n"));
  EXPECT_THAT(report, HasSubstr("Return addresses: "));
  EXPECT_THAT(report, HasSubstr("Call stack: "));
}

/// Notes its end.
struct Passenger {
  ~Passenger() { isGone = true; }
  bool& isGone;
};

TEST(NativeReporterTest, AnNSExceptionRunsTheDestructorsOnItsWayToTheHandlerOfEverything) {
  bool isGone = false;
  try {
    const Passenger passenger{isGone};
    [[NSException exceptionWithName:@"Overrun" reason:@"nothing fits" userInfo:nil] raise];
    FAIL() << "it was not raised";
  } catch (...) {
    EXPECT_TRUE(isGone);
  }
}

TEST(NativeReporterTest, AStandardExceptionPassesTheNSExceptionHandler) {
  EXPECT_THAT(reportOf([] { throw std::runtime_error("it failed"); }),
              HasSubstr("std::exception:\n\nit failed"));
}

TEST(NativeReporterTest, AnythingElseIsReportedAsUnknown) {
  EXPECT_THAT(reportOf([] { throw 42; }), HasSubstr("unknown exception type"));
}

}  // namespace
}  // namespace kes
