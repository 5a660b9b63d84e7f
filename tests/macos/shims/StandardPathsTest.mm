#import <Foundation/Foundation.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "kespal/fs/Path.h"
#include "kespal/fs/StandardPaths.h"

namespace kes::fs {
namespace {

using testing::EndsWith;
using testing::StartsWith;

/// The framework's answers are its own: what is checked is which question was put, and what became of the
/// answer.
class MacStandardPathsTest : public testing::Test {
 protected:
  ~MacStandardPathsTest() override { [pool_ release]; }

  static std::string answer(NSSearchPathDirectory directory, NSSearchPathDomainMask domain) {
    return [[NSSearchPathForDirectoriesInDomains(directory, domain, YES) lastObject] UTF8String];
  }

 private:
  NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init];
};

TEST_F(MacStandardPathsTest, UserDataLiesInTheUsersApplicationSupport) {
  EXPECT_EQ(std::string(StandardPaths::userDataDir()),
            answer(NSApplicationSupportDirectory, NSUserDomainMask));
  EXPECT_THAT(std::string(StandardPaths::userDataDir()), EndsWith("/ApplicationSupport"));
}

TEST_F(MacStandardPathsTest, DocumentsLieInTheUsersDocuments) {
  EXPECT_EQ(std::string(StandardPaths::documentsDir()), answer(NSDocumentDirectory, NSUserDomainMask));
  EXPECT_THAT(std::string(StandardPaths::documentsDir()), EndsWith("/Documents"));
}

TEST_F(MacStandardPathsTest, LogsLieInTheLibrariesOfTheUserAndOfTheMachine) {
  EXPECT_EQ(std::string(StandardPaths::userLogDir()), answer(NSLibraryDirectory, NSUserDomainMask) + "/Logs");
  EXPECT_EQ(std::string(StandardPaths::logDir()), answer(NSLibraryDirectory, NSLocalDomainMask) + "/Logs");
  EXPECT_NE(std::string(StandardPaths::userLogDir()), std::string(StandardPaths::logDir()));
}

TEST_F(MacStandardPathsTest, TheUsersTemporaryDirectoryIsTheFrameworksWithoutATrailingSlash) {
  std::string expected = [NSTemporaryDirectory() UTF8String];
  if (expected.ends_with('/')) expected.pop_back();
  EXPECT_EQ(std::string(StandardPaths::userTempDir()), expected);
  EXPECT_THAT(expected, StartsWith("/"));
}

}  // namespace
}  // namespace kes::fs
