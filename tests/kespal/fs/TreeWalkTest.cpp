#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>

#include "kespal/error/FsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/FewDescriptors.h"
#include "kespal/fs/Tree.h"
#include "kespal/fs/UnknownTypes.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/FileStatus.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"
#include "support/PrivateMount.h"
#include "support/Raised.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

using test::asNobody;
using test::Call;
using test::inChild;
using test::raisedBy;
using test::Refuse;
using test::TempDir;
using test::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

std::vector<std::string> walked(const std::string& path) {
  std::vector<std::string> paths;
  for (TreeWalk walk(path.c_str()); walk.nextEntry();) paths.emplace_back(walk.relativePath());
  return paths;
}

/// A chain of so many directories below `path`, which may be longer than any path; the last one has a file.
void makeDeep(const std::string& path, int depth) {
  int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY);
  for (int level = 0; level < depth; ++level) {
    ::mkdirat(fd, "a-rather-long-name", 0700);
    const int next = ::openat(fd, "a-rather-long-name", O_RDONLY | O_DIRECTORY);
    ::close(fd);
    fd = next;
  }
  ::close(::openat(fd, "file", O_WRONLY | O_CREAT, 0600));
  ::close(fd);
}

struct TreeWalkTest : testing::Test {
  TempDir dir;

  void SetUp() override {
    for (const char* name : {"tree", "tree/a", "tree/a/b", "tree/empty", "outside"}) {
      ::mkdir((dir / name).c_str(), 0700);
    }
    for (const char* name : {"tree/1", "tree/a/2", "tree/a/b/3", "outside/4"}) writeFile(dir / name, name);
    ASSERT_EQ(::symlink("../../outside", (dir / "tree/a/link").c_str()), 0);
    ::mkfifo((dir / "tree/fifo").c_str(), 0600);
  }
};

TEST_F(TreeWalkTest, AllEntriesAreSeenOnceAndLinksAreNotFollowed) {
  EXPECT_THAT(walked(dir / "tree"),
              UnorderedElementsAre("1", "a", "a/2", "a/b", "a/b/3", "a/link", "empty", "fifo"));
  EXPECT_THAT(walked(dir / "tree/empty"), IsEmpty());
  EXPECT_THAT(walked(dir / "tree//"), testing::SizeIs(8));
}

TEST_F(TreeWalkTest, ADirectoryComesBeforeWhatIsInIt) {
  const auto paths = walked(dir / "tree");
  const auto at = [&](const char* path) { return std::find(paths.begin(), paths.end(), path); };
  EXPECT_LT(at("a"), at("a/b"));
  EXPECT_LT(at("a/b"), at("a/b/3"));
}

TEST_F(TreeWalkTest, AnEntryHasPathNameDepthTypeAndStatus) {
  const test::UnknownTypes unknownTypes;
  std::map<std::string, Dir::EntryType> types;
  for (TreeWalk walk((dir / "tree").c_str()); walk.nextEntry();) {
    const std::string relative = walk.relativePath();
    EXPECT_EQ(walk.path(), dir / ("tree/" + relative));
    EXPECT_EQ(walk.entryName(), relative.substr(relative.rfind('/') + 1));
    EXPECT_EQ(walk.depth(), static_cast<std::size_t>(std::count(relative.begin(), relative.end(), '/')));
    EXPECT_EQ(walk.entryInfo().native().st_ino, test::statusOf(walk.path()).st_ino);
    EXPECT_EQ(::faccessat(walk.directory(), walk.entryName(), F_OK, AT_SYMLINK_NOFOLLOW), 0);
    types[relative] = walk.entryType();
  }
  EXPECT_EQ(types["a"], Dir::EntryType::Directory);
  EXPECT_EQ(types["a/2"], Dir::EntryType::Regular);
  EXPECT_EQ(types["a/link"], Dir::EntryType::Link);
  EXPECT_EQ(types["fifo"], Dir::EntryType::Other);
  EXPECT_EQ(types.size(), 8U);
}

TEST_F(TreeWalkTest, ASkippedDirectoryIsNotEntered) {
  std::vector<std::string> paths;
  for (TreeWalk walk((dir / "tree").c_str()); walk.nextEntry();) {
    paths.emplace_back(walk.relativePath());
    if (paths.back() == "a") walk.skip();
  }
  EXPECT_THAT(paths, UnorderedElementsAre("1", "a", "empty", "fifo"));
}

TEST_F(TreeWalkTest, WithoutAnEntryThereIsNothingToTell) {
  TreeWalk walk((dir / "tree/empty").c_str());
  const auto expectNone = [&] {
    EXPECT_EQ(raisedBy([&] { (void)walk.path(); }).text, "No current entry");
    EXPECT_EQ(raisedBy([&] { (void)walk.entryInfo(); }).type, "kes::UsageError");
    EXPECT_EQ(raisedBy([&] { (void)walk.directory(); }).type, "kes::UsageError");
  };
  expectNone();
  EXPECT_FALSE(walk.nextEntry());
  expectNone();
  EXPECT_FALSE(walk.nextEntry());
}

TEST_F(TreeWalkTest, WhatIsNoDirectoryIsNoTree) {
  EXPECT_EQ(raisedBy([&] { TreeWalk((dir / "no").c_str()); }).type, "kes::NoSuchFileError");
  EXPECT_EQ(raisedBy([&] { TreeWalk((dir / "tree/1").c_str()); }).errnum, ENOTDIR);
  EXPECT_EQ(raisedBy([&] { TreeWalk((dir / "tree/a/link").c_str()); }).type, "kes::FsError");
  EXPECT_EQ(raisedBy([&] { TreeWalk((dir / "tree/a/link/").c_str()); }).type, "kes::FsError");
  EXPECT_EQ(raisedBy([] { TreeWalk(nullptr); }).errnum, EFAULT);
}

TEST_F(TreeWalkTest, ATreeMayBeDeeperThanAPathCanBeLongAndFewDescriptorsAreOpen) {
  makeDeep(dir / "tree/empty", 400);
  const std::size_t before = test::openDescriptors().size();
  std::size_t most = 0, entries = 0;
  for (TreeWalk walk((dir / "tree/empty").c_str()); walk.nextEntry(); ++entries) {
    most = std::max(most, test::openDescriptors().size());
  }
  EXPECT_EQ(entries, 401U);
  EXPECT_LE(most, before + 10);
  EXPECT_EQ(test::openDescriptors().size(), before);
}

TEST_F(TreeWalkTest, ThreeDescriptorsAreEnough) {
  makeDeep(dir / "tree/empty", 40);
  const auto result = inChild([&] {
    const test::FewDescriptors few(3);
    return walked(dir / "tree").size() == 8 + 41 ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0) << result.err;
}

TEST_F(TreeWalkTest, ADirectoryThatCannotBeEnteredIsAnErrorAndTheWalkGoesOn) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  ::chmod((dir / "tree").c_str(), 0777);
  ::chmod(dir.path().c_str(), 0755);
  ::chmod((dir.path() + "/..").c_str(), 0755);
  const auto result = asNobody([&] {
    std::size_t entries = 0, errors = 0;
    TreeWalk walk((dir / "tree").c_str());
    for (bool goesOn = true; goesOn;) {
      try {
        goesOn = walk.nextEntry();
        entries += goesOn ? 1 : 0;
      } catch (const FsError& error) {
        ++errors;
        if (error.errnum() != EACCES) return 2;
      }
    }
    return entries == 4 && errors == 2 ? 0 : 1;  // "a" and "empty" are root's
  });
  EXPECT_EQ(result.exitCode(), 0) << result.err;
}

TEST_F(TreeWalkTest, ADirectoryThatCannotBeReadIsNamedAndTheWalkGoesOn) {
  TreeWalk walk((dir / "tree").c_str());
  std::size_t entries = 0, errors = 0;
  const Refuse failing(Call::readdir, EIO, test::nth(10));  // of "tree" all were read by now
  for (bool goesOn = true; goesOn;) {
    const auto raised = raisedBy([&] { goesOn = walk.nextEntry(); });
    if (!raised.type.empty()) {
      ++errors;
      EXPECT_EQ(raised.type, "kes::FsError");
      EXPECT_EQ(raised.errnum, EIO);
      EXPECT_THAT(raised.text, testing::StartsWith(dir / "tree/"));
    } else if (goesOn) {
      ++entries;
    }
  }
  EXPECT_LE(errors, 1U);
  EXPECT_GE(entries, 4U);
}

TEST_F(TreeWalkTest, ADirectoryThatIsGoneHasNoEntries) {
  TreeWalk walk((dir / "tree").c_str());
  bool seen = false;
  while (walk.nextEntry()) {
    if (walk.relativePath() != std::string("empty")) continue;
    seen = true;
    ::rmdir((dir / "tree/empty").c_str());
  }
  EXPECT_TRUE(seen);
}

TEST_F(TreeWalkTest, ALinkThatTakesTheDirectorysPlaceDoesNotLeadOut) {
  TreeWalk walk((dir / "tree").c_str());
  std::vector<std::string> paths;
  while (walk.nextEntry()) {
    paths.emplace_back(walk.relativePath());
    if (paths.back() != "empty") continue;
    ::rmdir((dir / "tree/empty").c_str());
    ASSERT_EQ(::symlink("../outside", (dir / "tree/empty").c_str()), 0);
  }
  EXPECT_THAT(paths, testing::Not(testing::Contains("empty/4")));
}

/// The directory so many levels below tree/a/b that makeDeep() makes.
std::string levelOf(const TempDir& dir, int depth) {
  std::string path = dir / "tree/a/b";
  for (int level = 0; level < depth; ++level) path += "/a-rather-long-name";
  return path;
}

TEST_F(TreeWalkTest, ADirectoryThatIsMovedMeanwhileDoesNotLeadOut) {
  makeDeep(dir / "tree/a/b", 20);
  TreeWalk walk((dir / "tree").c_str());
  std::vector<std::string> paths;
  while (walk.nextEntry()) {
    paths.emplace_back(walk.relativePath());
    // The upper ones are closed by now, and from here ".." leads to another place.
    if (walk.entryName() != std::string("file")) continue;
    ASSERT_EQ(::rename(levelOf(dir, 11).c_str(), (dir / "outside/moved").c_str()), 0);
  }
  EXPECT_THAT(paths, testing::IsSupersetOf({"1", "a", "a/2", "a/link", "a/b/3", "empty", "fifo"}));
  EXPECT_THAT(paths, testing::SizeIs(8 + 21));
}

TEST_F(TreeWalkTest, WhenTheWayUpIsLostTheWalkIsAtItsEnd) {
  makeDeep(dir / "tree/a/b", 20);
  TreeWalk walk((dir / "tree").c_str());
  const auto raised = raisedBy([&] {
    while (walk.nextEntry()) {
      if (walk.entryName() != std::string("file")) continue;
      ASSERT_EQ(::rename(levelOf(dir, 11).c_str(), (dir / "outside/moved").c_str()), 0);
      ASSERT_EQ(::rename(levelOf(dir, 5).c_str(), (dir / "outside/too").c_str()), 0);
      ::mkdir(levelOf(dir, 5).c_str(), 0700);
    }
  });
  EXPECT_EQ(raised.type, "kes::FsError");
  EXPECT_EQ(raised.errnum, ENOENT);
  EXPECT_EQ(raised.text, levelOf(dir, 10));
  EXPECT_FALSE(walk.nextEntry());
}

TEST_F(TreeWalkTest, AnotherDirectoryOfTheSameNameIsNotTakenForTheOneThatWasLeft) {
  makeDeep(dir / "tree/a/b", 20);
  TreeWalk walk((dir / "tree").c_str());
  const auto raised = raisedBy([&] {
    while (walk.nextEntry()) {
      if (walk.entryName() != std::string("file")) continue;
      ASSERT_EQ(::rename(levelOf(dir, 11).c_str(), (dir / "outside/moved").c_str()), 0);
      ASSERT_EQ(::rename(levelOf(dir, 10).c_str(), (dir / "outside/too").c_str()), 0);
      ::mkdir(levelOf(dir, 10).c_str(), 0700);
    }
  });
  EXPECT_EQ(raised.type, "kes::FsError");
  EXPECT_EQ(raised.errnum, ESTALE);
}

TEST_F(TreeWalkTest, ADirectoryThatIsMountedIntoItselfIsNotEnteredAgain) {
  const auto result = inChild([&] {
    if (!test::mountPrivately(dir / "outside", "64k")) return 77;
    ::mkdir((dir / "outside/top").c_str(), 0700);
    ::mkdir((dir / "outside/top/loop").c_str(), 0700);
    const std::string top = dir / "outside/top", loop = top + "/loop";
    if (::mount(top.c_str(), loop.c_str(), "none", MS_BIND, nullptr) != 0) return 77;
    return walked(top).size() == 1 ? 0 : 1;
  });
  if (result.exitCode() == 77) GTEST_SKIP() << "may not mount";
  EXPECT_EQ(result.exitCode(), 0) << result.err;
}

TEST_F(TreeWalkTest, WithoutMemoryItIsBadAllocAndNoDescriptorStaysOpen) {
  makeDeep(dir / "tree/empty", 20);
  const auto before = test::openDescriptors();
  const std::string top = dir / "tree";
  EXPECT_GT(test::starve([&] {
              TreeWalk walk(top.c_str());
              while (walk.nextEntry()) continue;
            }),
            0U);
  EXPECT_EQ(test::openDescriptors(), before);
}

}  // namespace
}  // namespace kes::fs
