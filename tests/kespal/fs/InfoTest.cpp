#include "kespal/fs/Info.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "kespal/error/FsError.h"
#include "kespal/error/OsError.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

using test::raisedAs;
using test::TempDir;

Info following(const std::string& path) { return Info::get(path.c_str(), /*follow=*/true); }
Info ofTheEntry(const std::string& path) { return Info::get(path.c_str(), /*follow=*/false); }

TEST(InfoTest, AnEmptyRecordIsOfNoType) {
  const Info info;
  EXPECT_FALSE(info.isDir() || info.isRegular() || info.isLink());
  EXPECT_EQ(info.size(), 0);
  EXPECT_EQ(info.mode(), 0);
}

TEST(InfoTest, DirectoryFileAndLinkAreToldApart) {
  TempDir dir;
  test::writeFile(dir / "file", "12345");
  std::filesystem::create_symlink("file", dir / "link");

  EXPECT_TRUE(ofTheEntry(dir.path()).isDir());
  EXPECT_FALSE(ofTheEntry(dir.path()).isRegular() || ofTheEntry(dir.path()).isLink());
  EXPECT_TRUE(ofTheEntry(dir / "file").isRegular());
  EXPECT_FALSE(ofTheEntry(dir / "file").isDir() || ofTheEntry(dir / "file").isLink());
  EXPECT_TRUE(ofTheEntry(dir / "link").isLink());
  EXPECT_FALSE(ofTheEntry(dir / "link").isRegular() || ofTheEntry(dir / "link").isDir());
  EXPECT_TRUE(following(dir / "link").isRegular());
  EXPECT_EQ(following(dir / "link").size(), 5);
  EXPECT_EQ(ofTheEntry(dir / "link").size(), 4) << "a link is as long as its target's name";
}

TEST(InfoTest, WhatIsNeitherIsNoneOfThem) {
  TempDir dir;
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  for (const Info& info : {ofTheEntry(dir / "fifo"), following("/dev/null")}) {
    EXPECT_FALSE(info.isDir() || info.isRegular() || info.isLink());
  }
  EXPECT_TRUE(S_ISFIFO(ofTheEntry(dir / "fifo").native().st_mode));
}

TEST(InfoTest, TheRecordIsTheSystems) {
  TempDir dir;
  test::writeFile(dir / "file", "123");
  ASSERT_EQ(::chmod((dir / "file").c_str(), 01640), 0);
  struct stat status;
  ASSERT_EQ(::stat((dir / "file").c_str(), &status), 0);
  const Info info = following(dir / "file");
  EXPECT_EQ(info.mode(), 01640);
  EXPECT_EQ(info.owner(), status.st_uid);
  EXPECT_EQ(info.group(), status.st_gid);
  EXPECT_EQ(info.size(), 3);
  EXPECT_EQ(info.native().st_ino, status.st_ino);
  EXPECT_EQ(info.native().st_mode, status.st_mode);
  EXPECT_EQ(info.native().st_mtime, status.st_mtime);
  EXPECT_EQ(info.access().mode(), 01640);
  EXPECT_EQ(info.access().owner(), status.st_uid);
  EXPECT_EQ(info.access().group(), status.st_gid);
}

TEST(InfoTest, AnOpenFileIsAskedByItsDescriptor) {
  TempDir dir;
  test::writeFile(dir / "file", "1234");
  const int fd = ::open((dir / "file").c_str(), O_RDONLY | O_CLOEXEC);
  std::filesystem::remove(dir / "file");
  EXPECT_TRUE(Info::get(fd).isRegular());
  EXPECT_EQ(Info::get(fd).size(), 4);
  ::close(fd);
}

TEST(InfoTest, ADanglingLinkIsMissingWhenFollowedAndALinkWhenNot) {
  TempDir dir;
  std::filesystem::create_symlink("none", dir / "dangling");
  const auto error = raisedAs<NoSuchFileError>([&] { following(dir / "dangling"); });
  EXPECT_EQ(error.osError().errnum(), ENOENT);
  EXPECT_EQ(error.path(), dir / "dangling");
  EXPECT_TRUE(ofTheEntry(dir / "dangling").isLink());
}

TEST(InfoTest, AMissingFileIsItsOwnClassWithPathAndSite) {
  TempDir dir;
  for (const bool follow : {false, true}) {
    const auto error = raisedAs<NoSuchFileError>([&] { Info::get((dir / "none").c_str(), follow); });
    EXPECT_EQ(error.osError().errnum(), ENOENT);
    EXPECT_EQ(error.path(), dir / "none");
    EXPECT_STREQ(error.function(), "get");
    EXPECT_STREQ(error.file(), "src/os/posix/fs/Info");
  }
}

TEST(InfoTest, EveryOtherFailureIsAnFsErrorWithItsErrno) {
  TempDir dir;
  test::writeFile(dir / "file", "");
  std::filesystem::create_symlink("loop", dir / "loop");
  const std::pair<std::string, int> rows[] = {
      {dir / "file/x", ENOTDIR},
      {dir / "loop/x", ELOOP},
      {dir / std::string(256, 'x'), ENAMETOOLONG},
      {'/' + std::string(5000, 'x'), ENAMETOOLONG},
  };
  for (const auto& [path, code] : rows) {
    for (const bool follow : {false, true}) {
      const auto error = raisedAs<FsError>([&, p = path] { Info::get(p.c_str(), follow); });
      EXPECT_EQ(error.osError().errnum(), code) << path;
      EXPECT_EQ(error.path(), path);
    }
  }
  EXPECT_EQ(raisedAs<FsError>([&] { following(dir / "loop"); }).osError().errnum(), ELOOP);
}

TEST(InfoTest, ANullPathIsRefusedAsTheSystemWouldDo) {
  for (const bool follow : {false, true}) {
    const auto error = raisedAs<FsError>([&] { Info::get(nullptr, follow); });
    EXPECT_EQ(error.osError().errnum(), EFAULT);
    EXPECT_EQ(error.path(), "");
  }
}

TEST(InfoTest, AFileInADirectoryThatCannotBeSearchedIsAnFsError) {
  TempDir dir;
  std::filesystem::create_directory(dir / "closed");
  test::writeFile(dir / "closed/file", "");
  std::filesystem::permissions(dir / "closed", std::filesystem::perms::none);
  const auto child = test::asNobody([&] {
    return raisedAs<FsError>([&] { following(dir / "closed/file"); }).osError().errnum() == EACCES ? 0 : 1;
  });
  std::filesystem::permissions(dir / "closed", std::filesystem::perms::owner_all);
  EXPECT_EQ(child.exitCode(), 0) << child.err;
}

TEST(InfoTest, ABadDescriptorIsAnOsError) {
  const auto error = raisedAs<OsError>([] { Info::get(-1); });
  EXPECT_EQ(error.errnum(), EBADF);
  EXPECT_STREQ(error.function(), "get");
}

}  // namespace
}  // namespace kes::fs
