#include "kespal/error/FsError.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "kespal/error/BadPermissionsError.h"
#include "kespal/fs/Access.h"

namespace kes {
namespace {

const std::string missing = std::strerror(ENOENT);

TEST(FsErrorTest, AMissingFileExplainsItselfInFullAsItIsRaised) {
  try {
    raiseAt({"src/os/posix/fs/File", 12, "open"}, NoSuchFileError("/no/such", ENOENT));
  } catch (const NoSuchFileError& error) {
    EXPECT_EQ(error.what(),
              "Exception occured at \"src/os/posix/fs/File:12 (open)\"\n"
              "\n"
              "File system error occured. At location: \"/no/such\"\n"
              "Reason: " +
                  missing + " (2).");
  }
}

TEST(FsErrorTest, WithoutAnErrorNumberThereIsNoReasonLine) {
  EXPECT_STREQ(FsError("/path", 0).what(), "File system error occured. At location: \"/path\"");
}

TEST(FsErrorTest, ItsTextIsPathAndReason) {
  EXPECT_EQ(FsError("/path", ENOENT).text(), "/path: " + missing + " (2)");
  EXPECT_EQ(FsError("", ENOENT).text(), ": " + missing + " (2)");
}

TEST(FsErrorTest, ItKeepsPathAndNumberAndTheNumbersObjectHasNoLocation) {
  FsError error("/path", EIO);
  error.setSite({"src/File", 1, "function"});
  EXPECT_EQ(error.path(), "/path");
  EXPECT_EQ(error.osError().errnum(), EIO);
  EXPECT_EQ(error.osError().file(), nullptr);
  EXPECT_EQ(error.osError().function(), nullptr);
}

TEST(FsErrorTest, ANullPathCountsAsTheEmptyOne) {
  const char* null = nullptr;
  EXPECT_EQ(FsError(null, EFAULT).path(), "");
  EXPECT_EQ(NoSuchFileError(null, EFAULT).path(), "");
  EXPECT_EQ(BadPermissionsError(null, fs::Access(), "").path(), "");
}

TEST(FsErrorTest, DetailStreamedBeforeRaisingFollowsTheLocation) {
  FsError error("/path", ENOENT);
  error.stream() << " in line " << 3;
  try {
    error.raise();
  } catch (const FsError& caught) {
    EXPECT_EQ(caught.what(),
              "File system error occured. At location: \"/path\" in line 3\nReason: " + missing + " (2).");
    EXPECT_EQ(caught.text(), "/path: " + missing + " (2)");
  }
}

TEST(FsErrorTest, AMovedOneSaysWhatItWouldHaveSaid) {
  FsError error("/path", ENOENT), streamed("/path", ENOENT);
  streamed.stream() << ", really";
  const FsError moved(std::move(error)), movedToo(std::move(streamed));
  EXPECT_EQ(moved.what(), "File system error occured. At location: \"/path\"\nReason: " + missing + " (2).");
  EXPECT_EQ(movedToo.what(),
            "File system error occured. At location: \"/path\", really\nReason: " + missing + " (2).");
}

TEST(FsErrorTest, TheEightKindsDifferInTypeOnly) {
  EXPECT_EQ(ReadOnlyFileSystemError("/p", ENOENT).text(), "/p: " + missing + " (2)");
  EXPECT_STREQ(FileBusyError("/p", ENOENT).what(), FsError("/p", ENOENT).what());
  EXPECT_THROW(IsASymlinkError("/p", ELOOP).raise(), FsError);
  EXPECT_THROW(NotASymlinkError("/p", EINVAL).raise(), DynError);
}

TEST(BadPermissionsErrorTest, ItsTextIsPathComplaintAndReason) {
  const BadPermissionsError error("/etc/key", fs::Access(0, 80, 0750), "others may read");
  EXPECT_EQ(error.text(), "/etc/key: bad file permissions encountered: others may read");
  EXPECT_EQ(error.reason(), "others may read");
  EXPECT_EQ(error.osError().errnum(), EINVAL);
}

TEST(BadPermissionsErrorTest, ItShowsThePermissionsThatTheFileHas) {
  const BadPermissionsError error("/etc/key", fs::Access(0, 80, 0750), "others may read");
  EXPECT_EQ(error.what(),
            "File system error occured. At location: \"/etc/key\""
            ": bad file permissions encountered: others may read\n"
            "Permissions of file are: 0:80 rwxr-x---\n"
            "Reason: " +
                std::string(std::strerror(EINVAL)) + " (22).");
}

TEST(BadPermissionsErrorTest, ACopySaysTheSame) {
  const BadPermissionsError error("/etc/key", fs::Access(0640), "reason");
  const std::unique_ptr<Exception> clone(error.clone());
  EXPECT_STREQ(clone->what(), error.what());
  EXPECT_EQ(clone->text(), error.text());
  EXPECT_THROW(clone->raise(), BadPermissionsError);
}

}  // namespace
}  // namespace kes
