#include "kespal/error/Exception.h"

#include "kespal/error/BadPermissionsError.h"
#include "kespal/error/FsError.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/Access.h"

namespace kes {
namespace {

TEST(ExceptionTest, AStaticErrorWithoutNameAndTextExplainsItselfAsErrorOccured) {
  EXPECT_STREQ(StaticError(nullptr, nullptr).what(), "error occured.");
}

TEST(ExceptionTest, AThrowSiteFillsInItsPathLineAndFunction) {
  const int line = __LINE__ + 2;
  try {
    raiseAt(KES_HERE, NoSuchFileError("/x", ENOENT));
  } catch (const FsError& error) {
    EXPECT_EQ(error.line(), line);
    EXPECT_STREQ(error.function(), "TestBody");
    EXPECT_STREQ(error.file(), "tests/kespal/error/ExceptionTest");
    EXPECT_EQ(error.text(), "/x: No such file or directory (2)");
  }
}

}  // namespace
}  // namespace kes
