#include "kespal/error/Code.h"

#include <cerrno>

#include "ErrorKinds.h"
#include "kespal/error/Json.h"

namespace kes {
namespace {

TEST(ErrorCodeTest, EveryErrorThatHasANumberGivesItByItsBase) {
  for (const auto& error : test::oneOfEachKind()) {
    int expected = 0;
    if (const auto* os = dynamic_cast<const OsError*>(error.get())) expected = os->errnum();
    if (const auto* fs = dynamic_cast<const FsError*>(error.get())) expected = fs->osError().errnum();
    EXPECT_EQ(errnum(*error), expected) << json(*error);
  }
  EXPECT_EQ(errnum(BadPermissionsError("/path", fs::Access(0, 80, 0750), "reason")), EINVAL);
  EXPECT_EQ(errnum(NoSuchProcessError(ESRCH)), ESRCH);
  EXPECT_EQ(NoSuchFileError("/path", ENOENT).errnum(), ENOENT);
}

TEST(ErrorCodeTest, AnErrorComparesWithTheConditionsOfTheStandard) {
  EXPECT_EQ(errorCode(NoSuchFileError("/path", ENOENT)), std::errc::no_such_file_or_directory);
  EXPECT_EQ(errorCode(OsError(EAGAIN)), std::errc::resource_unavailable_try_again);
  EXPECT_NE(errorCode(OsError(EIO)), std::errc::no_such_file_or_directory);
  EXPECT_EQ(errorCode(OsError(EIO)).value(), EIO);
}

TEST(ErrorCodeTest, AnErrorWithoutANumberHasAnEmptyCodeAndItsCauseKeepsItsOwn) {
  RuntimeError error("settings cannot be read");
  error.setNext(NoSuchFileError("/settings", ENOENT));
  EXPECT_EQ(errnum(error), 0);
  EXPECT_EQ(errorCode(error), std::error_code());
  EXPECT_EQ(errnum(*error.next()), ENOENT);
}

}  // namespace
}  // namespace kes
