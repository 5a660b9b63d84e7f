#import <Foundation/Foundation.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "kespal/UnhandledException.h"
#include "support/ForkedChild.h"

namespace kes {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const std::string title = ">>> unhandled iOS exception occured <<<\n";

/// What the reporter writes about an NSException while it is being handled.
std::string reportOf(NSDictionary* userInfo) {
  const test::ChildResult result = test::inChild([userInfo] {
    try {
      [[NSException exceptionWithName:@"Overrun" reason:@"nothing fits" userInfo:userInfo] raise];
    } catch (...) {
      kespal_unhandled_exception();
    }
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 0);
  return result.err;
}

class FoundationTest : public testing::Test {
 protected:
  ~FoundationTest() override { [pool_ release]; }

 private:
  NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init];
};

TEST_F(FoundationTest, AnNSExceptionIsReportedWithNameAndReason) {
  EXPECT_THAT(reportOf(nil), StartsWith(title + "NSException:\n\nObject: Overrun\nReason: nothing fits\n\n"));
}

TEST_F(FoundationTest, TheUserInfoOfAnNSExceptionIsReportedOnlyWhenThereIsOne) {
  NSDictionary* const info = [NSDictionary dictionaryWithObject:@"value" forKey:@"key"];
  EXPECT_THAT(reportOf(info), HasSubstr("\nUser info: {key = value; }\n"));
  EXPECT_THAT(reportOf(nil), Not(HasSubstr("User info")));
}

TEST_F(FoundationTest, TheCallStackOfARaisedNSExceptionIsReportedAfterItsReason) {
  const std::string report = reportOf(nil);
  const auto addresses = report.find("\nReturn addresses: "), stack = report.find("\nCall stack: ");
  EXPECT_LT(report.find("\nReason: "), addresses);
  EXPECT_LT(addresses, stack);
  EXPECT_NE(stack, std::string::npos);
}

/// Notes its end.
struct Passenger {
  ~Passenger() { isGone = true; }
  bool& isGone;
};

TEST_F(FoundationTest, AnNSExceptionRunsTheDestructorsOnItsWayToTheHandlerOfEverything) {
  bool isGone = false;
  try {
    const Passenger passenger{isGone};
    [[NSException exceptionWithName:@"Overrun" reason:@"nothing fits" userInfo:nil] raise];
    FAIL() << "it was not raised";
  } catch (...) {
    EXPECT_TRUE(isGone);
  }
}

TEST_F(FoundationTest, NothingElseFollowsAnNSException) {
  EXPECT_THAT(reportOf(nil), Not(HasSubstr("unknown exception type")));
}

}  // namespace
}  // namespace kes
