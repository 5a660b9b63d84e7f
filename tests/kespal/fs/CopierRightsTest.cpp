#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>

#include "kespal/fs/CopierFixture.h"
#include "support/FileStatus.h"
#include "support/ForkedChild.h"

namespace kes::fs {
namespace {

using test::asNobody;
using test::modeOf;
using test::Raised;
using test::statusOf;

namespace stdfs = std::filesystem;

TEST_F(CopierTest, ATargetIsCreatedWithTheSourcesBitsLessTheMask) {
  const mode_t before = ::umask(027);
  ::chmod(from_.c_str(), 0666);
  EXPECT_EQ(copying(), Raised{});
  EXPECT_EQ(modeOf(to_), 0640u);
  EXPECT_EQ(copying({Flags::OVERWRITE, Flags::COPY_ACCESS}), Raised{});
  ::umask(before);
  EXPECT_EQ(modeOf(to_), 0666u) << "rights that are copied are not masked";
}

TEST_F(CopierTest, GivenRightsReplaceTheSourcesAndNeedNoFlag) {
  const Access given(0604);
  EXPECT_EQ(copying({}, &given), Raised{});
  EXPECT_EQ(modeOf(to_), 0604u);
  EXPECT_EQ(statusOf(to_).st_uid, ::geteuid());
}

TEST_F(CopierTest, RightsAreAppliedToExistingTargetsAndBorrowedStreams) {
  test::writeFile(to_, "");
  EXPECT_EQ(copying({Flags::OVERWRITE, Flags::COPY_ACCESS}), Raised{});
  EXPECT_EQ(modeOf(to_), 0640u);
  StreamFile out;
  out.open(to_.c_str(), File::WRITE);
  const Access given(0711);
  Copier(nullptr, 0, {}, &given).copy(from_.c_str(), out);
  EXPECT_EQ(modeOf(to_), 0711u);
}

TEST_F(CopierTest, RootCopiesOwnerGroupAndSetIdBits) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  ASSERT_EQ(::chown(from_.c_str(), 12, 34), 0);
  ASSERT_EQ(::chmod(from_.c_str(), 06755), 0);
  EXPECT_EQ(copying(Flags::COPY_ACCESS), Raised{});
  EXPECT_EQ(statusOf(to_).st_uid, 12u);
  EXPECT_EQ(statusOf(to_).st_gid, 34u);
  EXPECT_EQ(modeOf(to_), 06755u);
  stdfs::remove(to_);
  EXPECT_EQ(copying(), Raised{});
  EXPECT_EQ(statusOf(to_).st_uid, 0u) << "not without the flag";
}

TEST_F(CopierTest, NobodyCopiesRightsOfOwnFilesOnly) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0777), 0);
  ASSERT_EQ(::chmod(from_.c_str(), 0644), 0);
  const auto child = asNobody([&] {
    const std::string own = folder_ / "own", copy = folder_ / "copy";
    test::writeFile(own, "own");
    ::chmod(own.c_str(), 0600);
    Copier(nullptr, 0, Flags::COPY_ACCESS).copy(own.c_str(), copy.c_str());
    std::cout << std::oct << modeOf(copy) << std::dec << '\n' << copying() << '\n';
    std::cout << copying({Flags::COPY_ACCESS, Flags::OVERWRITE});
    return 0;
  });
  EXPECT_EQ(child.out,
            "600\nnothing raised\nkes::FsError 1 \"" + to_ + "\" at src/os/posix/fs/Access (setOwnership)")
      << child.err;
}

TEST_F(CopierTest, WithoutTheRightToReadThereIsNoCopy) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0777), 0);
  const auto child = asNobody([&] {
    std::cout << copying();
    return 0;
  });
  EXPECT_EQ(child.out, "kes::FileAccessError 13 \"" + from_ + "\" at " + fileSite + " (open)");
  EXPECT_FALSE(stdfs::exists(to_));
}

}  // namespace
}  // namespace kes::fs
