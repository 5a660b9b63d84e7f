#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <iostream>
#include <map>

#include "kespal/error/FsError.h"
#include "kespal/fs/Dir.h"
#include "kespal/fs/DirEntries.h"
#include "kespal/fs/Info.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

using test::Call;
using test::goTo;
using test::Names;
using test::namesIn;
using test::openDescriptors;
using test::raisedAs;
using test::Refuse;
using test::TempDir;

// --- the current entry

TEST(DirTest, TheInformationOfAnEntryIsThatOfItsFile) {
  TempDir top;
  test::writeFile(top / "file", "12345");
  std::filesystem::create_symlink("file", top / "link");
  std::filesystem::create_symlink("none", top / "dangling");
  Dir dir(top.path().c_str());
  int seen = 0;
  for (Info info; dir.nextEntry(); ++seen) {
    const std::string name = dir.entryName();
    dir.entryInfo(info, false);
    EXPECT_EQ(info.isLink(), name != "file");
    if (name == "dangling") {
      const auto error = raisedAs<NoSuchFileError>([&] { dir.entryInfo(info, true); });
      EXPECT_EQ(error.path(), top / "dangling");
      EXPECT_STREQ(error.function(), "entryInfo");
    } else {
      dir.entryInfo(info, true);
      EXPECT_TRUE(info.isRegular());
      EXPECT_EQ(info.size(), 5);
    }
  }
  EXPECT_EQ(seen, 3);
}

TEST(DirTest, InformationIsTakenRelativeToTheOpenDirectoryWhereverItHasMoved) {
  TempDir top;
  std::filesystem::create_directory(top / "before");
  test::writeFile(top / "before/file", "123");
  Dir dir((top / "before").c_str());
  std::filesystem::rename(top / "before", top / "after");
  ASSERT_TRUE(dir.nextEntry());
  Info info;
  dir.entryInfo(info, true);
  EXPECT_EQ(info.size(), 3);
}

TEST(DirTest, AnEntryThatVanishedIsMissingWhenAskedAbout) {
  TempDir top;
  test::writeFile(top / "file", "");
  Dir dir(top.path().c_str()), sub;
  ASSERT_TRUE(dir.nextEntry());
  std::filesystem::remove(top / "file");
  Info info;
  EXPECT_EQ(raisedAs<NoSuchFileError>([&] { dir.entryInfo(info, false); }).path(), top / "file");
  const auto error = raisedAs<NoSuchFileError>([&] { dir.entryDir(sub); });
  EXPECT_EQ(error.path(), top / "file");
  EXPECT_EQ(error.osError().errnum(), ENOENT);
}

TEST(DirTest, AnyOtherFailureAboutAnEntryIsAnFsErrorWithItsErrno) {
  TempDir top;
  std::filesystem::create_symlink("loop", top / "loop");
  Dir dir(top.path().c_str()), sub;
  ASSERT_TRUE(dir.nextEntry());
  Info info;
  EXPECT_EQ(raisedAs<FsError>([&] { dir.entryInfo(info, true); }).osError().errnum(), ELOOP);
  EXPECT_EQ(raisedAs<FsError>([&] { dir.entryDir(sub); }).osError().errnum(), ELOOP);
}

TEST(DirTest, ADirectoryThatMayBeReadButNotSearchedNamesEntriesAndRefusesTheRest) {
  TempDir top;
  std::filesystem::create_directories(top / "list/sub");
  ASSERT_EQ(::chmod((top / "list").c_str(), 0444), 0);
  const auto child = test::asNobody([&] {
    Dir dir((top / "list").c_str()), sub;
    if (!dir.nextEntry()) return 1;
    Info info;
    std::cout << dir.entryName() << ' '
              << raisedAs<FsError>([&] { dir.entryInfo(info, false); }).osError().errnum() << ' '
              << raisedAs<FsError>([&] { dir.entryDir(sub); }).osError().errnum();
    return 0;
  });
  EXPECT_EQ(child.out, "sub " + std::to_string(EACCES) + ' ' + std::to_string(EACCES)) << child.err;
}

TEST(DirTest, TheTypeOfAnEntryIsWhatTheSystemToldForFree) {
  TempDir top;
  std::filesystem::create_directory(top / "dir");
  test::writeFile(top / "file", "");
  std::filesystem::create_symlink("file", top / "link");
  ASSERT_EQ(::mkfifo((top / "fifo").c_str(), 0600), 0);
  Dir dir(top.path().c_str());
  const std::map<std::string, Dir::EntryType> types{{"dir", Dir::EntryType::Directory},
                                                    {"file", Dir::EntryType::Regular},
                                                    {"link", Dir::EntryType::Link},
                                                    {"fifo", Dir::EntryType::Other}};
  std::size_t told = 0;
  while (dir.nextEntry()) {
    if (dir.entryType() == Dir::EntryType::Unknown) continue;
    EXPECT_EQ(dir.entryType(), types.at(dir.entryName()));
    ++told;
  }
  if (told == 0) GTEST_SKIP() << "the file system of " << top.path() << " does not tell";
  EXPECT_EQ(told, types.size());
}

TEST(DirTest, TheInformationOfTheDirectoryIsItsOwn) {
  TempDir top;
  Dir dir(top.path().c_str());
  Info info;
  dir.dirInfo(info);
  EXPECT_TRUE(info.isDir());
  EXPECT_EQ(info.native().st_ino, Info::get(top.path().c_str(), true).native().st_ino);
}

// --- an entry that is a directory

TEST(DirTest, ASubdirectoryIsOpenedAndTheWalkGoesOnBesideIt) {
  TempDir top;
  std::filesystem::create_directories(top / "a/inner");
  std::filesystem::create_directories(top / "b/inner");
  Dir dir(top.path().c_str());
  int seen = 0;
  for (Dir sub; dir.nextEntry(); ++seen) {
    dir.entryDir(sub);
    EXPECT_EQ(namesIn(sub), Names{"inner"});
  }
  EXPECT_EQ(seen, 2);
}

TEST(DirTest, AWalkMayDescendInPlace) {
  TempDir top;
  std::filesystem::create_directories(top / "one/two/three");
  const auto before = openDescriptors();
  Dir dir(top.path().c_str());
  std::string path;
  while (dir.nextEntry()) {
    path += std::string("/") + dir.entryName();
    dir.entryDir(dir);
  }
  EXPECT_EQ(path, "/one/two/three");
  EXPECT_EQ(openDescriptors().size(), before.size() + 1);
}

TEST(DirTest, ALinkToADirectoryIsOpenedAsOne) {
  TempDir top;
  std::filesystem::create_directories(top / "real/inner");
  std::filesystem::create_symlink("real", top / "link");
  Dir dir(top.path().c_str()), sub;
  goTo(dir, "link");
  dir.entryDir(sub);
  EXPECT_EQ(namesIn(sub), Names{"inner"});
}

TEST(DirTest, AnEntryThatIsNoDirectoryFailsAsOpenDoesAndLeavesTheOtherDirAsItWas) {
  TempDir top, other;
  test::writeFile(top / "file", "");
  ASSERT_EQ(::mkfifo((top / "fifo").c_str(), 0600), 0);
  test::writeFile(other / "kept", "");
  Dir dir(top.path().c_str()), sub(other.path().c_str());
  while (dir.nextEntry()) {
    const auto error = raisedAs<FsError>([&] { dir.entryDir(sub); });
    EXPECT_EQ(error.osError().errnum(), ENOTDIR);
    EXPECT_EQ(error.path(), top / dir.entryName());
  }
  EXPECT_EQ(namesIn(sub), Names{"kept"});
}

TEST(DirTest, AnErrorAboutAnEntryNamesTheWholeWayToIt) {
  TempDir top;
  std::filesystem::create_directories(top / "a/b");
  std::filesystem::create_symlink("none", top / "a/b/dangling");
  Dir dir((top.path() + '/').c_str());
  const auto downTo = [&dir](const char* name) {
    goTo(dir, name);
    dir.entryDir(dir);
  };
  downTo("a");
  downTo("b");
  goTo(dir, "dangling");
  Info info;
  const std::string path = top.path() + "//a/b/dangling";
  EXPECT_EQ(raisedAs<NoSuchFileError>([&] { dir.entryInfo(info, true); }).path(), path);
  EXPECT_EQ(raisedAs<NoSuchFileError>([&] { dir.entryDir(dir); }).path(), path);
}

TEST(DirTest, ASubdirectoryThatCannotBecomeAStreamLeavesNoDescriptorBehind) {
  TempDir top;
  std::filesystem::create_directory(top / "sub");
  Dir dir(top.path().c_str()), sub;
  ASSERT_TRUE(dir.nextEntry());
  const auto before = openDescriptors();
  const Refuse failing(Call::fdopendir, ENOMEM);
  const auto error = raisedAs<FsError>([&] { dir.entryDir(sub); });
  EXPECT_EQ(error.osError().errnum(), ENOMEM);
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace kes::fs
