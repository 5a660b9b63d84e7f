#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <iostream>

#include "kespal/error/FsError.h"
#include "kespal/fs/Access.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/TempDir.h"

// What an Access does to the process and to files.

namespace kes::fs {
namespace {

using test::TempDir;

constexpr unsigned unchanged = Access::Unchanged;

TEST(UmaskTest, TheEarlierMaskIsReturnedAndTheNewOneIsInForce) {
  const auto child = test::inChild([] {
    ::umask(022);
    const Access earlier = Access::setUmask(Access(027));
    const Access between = Access::setUmask(earlier);
    std::cout << earlier << ' ' << between << ' ' << std::oct << ::umask(0);
    return 0;
  });
  EXPECT_EQ(child.out, "-:- ----w--w- -:- ----w-rwx 22");
}

TEST(UmaskTest, AFileIsBornWithoutTheBitsOfTheMask) {
  TempDir dir;
  const auto child = test::inChild([&] {
    Access::setUmask(Access(0137));
    const int fd = ::open((dir / "file").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0777);
    struct stat status;
    return ::fstat(fd, &status) == 0 && (status.st_mode & 07777) == 0640 ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

/// A fresh file, and what the system says about it.
class OwnershipTest : public testing::Test {
 protected:
  OwnershipTest() { test::writeFile(file_, ""); }

  void setMode(mode_t mode) const {
    if (::chmod(file_.c_str(), mode) != 0) throw std::runtime_error("chmod");
  }
  /// "owner:group mode", the mode in octal.
  std::string found() const {
    struct stat status;
    if (::lstat(file_.c_str(), &status) != 0) throw std::runtime_error("lstat");
    std::ostringstream text;
    text << status.st_uid << ':' << status.st_gid << ' ' << std::oct << (status.st_mode & 07777);
    return text.str();
  }

  TempDir dir_;
  const std::string file_ = dir_ / "file";
};

class RootOwnershipTest : public OwnershipTest {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
    setMode(0640);
  }
};

TEST_F(RootOwnershipTest, OwnerAndGroupAreChangedAndTheModeStays) {
  setOwnership(file_.c_str(), -1, Access(7, 8, 0777));
  EXPECT_EQ(found(), "7:8 640");
}

TEST_F(RootOwnershipTest, AnUnsetFieldIsLeftUntouched) {
  setOwnership(file_.c_str(), -1, Access(7, 8, 0));
  setOwnership(file_.c_str(), -1, Access(9, unchanged, 0));
  EXPECT_EQ(found(), "9:8 640");
  setOwnership(file_.c_str(), -1, Access(unchanged, 10, 0));
  EXPECT_EQ(found(), "9:10 640");
  setOwnership(file_.c_str(), -1, Access());
  EXPECT_EQ(found(), "9:10 640");
}

TEST_F(RootOwnershipTest, WithoutAPathTheDescriptorsFileIsMeant) {
  const int fd = ::open(file_.c_str(), O_RDONLY | O_CLOEXEC);
  setOwnership(nullptr, fd, Access(7, 8, 0));
  ::close(fd);
  EXPECT_EQ(found(), "7:8 640");
}

TEST_F(RootOwnershipTest, WithAPathTheDescriptorIsIgnored) {
  setOwnership(file_.c_str(), 999999, Access(7, 8, 0));
  EXPECT_EQ(found(), "7:8 640");
}

TEST_F(RootOwnershipTest, ALinkIsFollowed) {
  std::filesystem::create_symlink("file", dir_ / "link");
  setOwnership((dir_ / "link").c_str(), -1, Access(7, 8, 0));
  EXPECT_EQ(found(), "7:8 640");
  struct stat link;
  ASSERT_EQ(::lstat((dir_ / "link").c_str(), &link), 0);
  EXPECT_EQ(link.st_uid, 0U);
}

TEST_F(RootOwnershipTest, SetIdBitsThatAreAskedForSurviveTheChange) {
  setMode(06755);
  setOwnership(file_.c_str(), -1, Access(7, 8, 06755));
  EXPECT_EQ(found(), "7:8 6755");
  setOwnership(file_.c_str(), -1, Access(9, unchanged, 04755));
  EXPECT_EQ(found(), "9:8 4755");
  const int fd = ::open(file_.c_str(), O_RDONLY | O_CLOEXEC);
  setOwnership(nullptr, fd, Access(10, 11, 04755));
  ::close(fd);
  EXPECT_EQ(found(), "10:11 4755");
}

TEST_F(RootOwnershipTest, SetIdBitsThatNobodyAskedForAreDroppedAsTheSystemDoes) {
  setMode(06755);
  setOwnership(file_.c_str(), -1, Access(7, 8, 0755));
  EXPECT_EQ(found(), "7:8 755");
}

TEST_F(RootOwnershipTest, SetIdBitsThatTheFileDidNotHaveAreNotAdded) {
  setMode(0711);
  setOwnership(file_.c_str(), -1, Access(7, 8, 06755));
  EXPECT_EQ(found(), "7:8 711");
}

TEST_F(RootOwnershipTest, BitsThatTheSystemLeavesAloneStayThoughNobodyAskedForThem) {
  std::filesystem::remove(file_);
  std::filesystem::create_directory(file_);
  setMode(06755);
  setOwnership(file_.c_str(), -1, Access(7, 8, 04755));
  EXPECT_EQ(found(), "7:8 6755");
  setOwnership(file_.c_str(), -1, Access(9, 8, 02755));
  EXPECT_EQ(found(), "9:8 6755");
}

TEST_F(RootOwnershipTest, SetIdBitsThatCannotBeSetAgainAreAnError) {
  setMode(04755);
  const test::Refuse failing(test::Call::chmod, EROFS);
  try {
    setOwnership(file_.c_str(), -1, Access(7, 8, 04755));
    ADD_FAILURE() << "changed";
  } catch (const FsError& error) {
    EXPECT_EQ(error.osError().errnum(), EROFS);
  }
  EXPECT_EQ(found(), "7:8 755");
}

TEST_F(OwnershipTest, AFailureIsAnFsErrorWithThePathAndItsErrno) {
  const std::string missing = dir_ / "none", beneath = file_ + "/x", tooLong = dir_ / std::string(300, 'x');
  std::filesystem::create_symlink("loop", dir_ / "loop");
  const std::string loop = dir_ / "loop";
  const std::pair<const char*, int> rows[] = {{missing.c_str(), ENOENT},
                                              {beneath.c_str(), ENOTDIR},
                                              {tooLong.c_str(), ENAMETOOLONG},
                                              {loop.c_str(), ELOOP},
                                              {"", ENOENT},
                                              {nullptr, EBADF}};
  for (const auto& [path, code] : rows) {
    for (const std::uint16_t mode : {std::uint16_t{0}, std::uint16_t{04000}}) {
      try {
        setOwnership(path, -1, Access(::geteuid(), unchanged, mode));
        ADD_FAILURE() << "changed";
      } catch (const FsError& error) {
        EXPECT_EQ(typeid(error), typeid(FsError));
        EXPECT_EQ(error.osError().errnum(), code);
        EXPECT_EQ(error.path(), path != nullptr ? path : "");
        EXPECT_STREQ(error.function(), "setOwnership");
        EXPECT_STREQ(error.file(), "src/os/posix/fs/Access");
      }
    }
  }
}

TEST_F(OwnershipTest, NobodyCannotGiveAFileAway) {
  const auto child = test::asNobody([this] {
    try {
      setOwnership(file_.c_str(), -1, Access(::geteuid() + 1, unchanged, 0));
    } catch (const FsError& error) {
      return error.osError().errnum() == EPERM ? 0 : 1;
    }
    return 2;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

}  // namespace
}  // namespace kes::fs
