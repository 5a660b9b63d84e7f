#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "kespal/error/FsError.h"
#include "kespal/fs/FewDescriptors.h"
#include "kespal/fs/Tree.h"
#include "kespal/fs/UnknownTypes.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/FileStatus.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"
#include "support/Raised.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

using test::asNobody;
using test::Before;
using test::Call;
using test::inChild;
using test::Instead;
using test::isThere;
using test::raisedBy;
using test::readFile;
using test::real;
using test::Refuse;
using test::TempDir;
using test::writeFile;

struct RemoveAllTest : testing::Test {
  TempDir dir;
  std::string tree = dir / "tree";

  void SetUp() override {
    make();
    ::mkdir((dir / "outside").c_str(), 0700);
    writeFile(dir / "outside/precious", "precious");
  }

  void make() const {
    for (const char* name : {"tree", "tree/a", "tree/a/b"}) ::mkdir((dir / name).c_str(), 0700);
    for (const char* name : {"tree/1", "tree/a/2", "tree/a/b/3"}) {
      ::close(::open((dir / name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    }
  }

  void expectPrecious() const { EXPECT_EQ(readFile(dir / "outside/precious"), "precious"); }
};

TEST_F(RemoveAllTest, ATreeIsRemovedAndItsEntriesAreCounted) {
  EXPECT_EQ(removeAll(tree.c_str()), 6U);
  EXPECT_FALSE(isThere(tree));
  EXPECT_EQ(removeAll(tree.c_str()), 0U);
  EXPECT_EQ(removeAll((tree + "/no/such").c_str()), 0U);
}

TEST_F(RemoveAllTest, LinksAreRemovedAndNotFollowed) {
  ASSERT_EQ(::symlink("../outside", (tree + "/link").c_str()), 0);
  ASSERT_EQ(::symlink("../outside/precious", (tree + "/a/link").c_str()), 0);
  ASSERT_EQ(::symlink("nowhere", (tree + "/a/dangling").c_str()), 0);
  ASSERT_EQ(::symlink("..", (tree + "/a/b/up").c_str()), 0);
  EXPECT_EQ(removeAll(tree.c_str()), 10U);
  EXPECT_FALSE(isThere(tree));
  expectPrecious();
}

TEST_F(RemoveAllTest, TheTopMayBeAFileOrALinkWhichIsNotFollowedEither) {
  ASSERT_EQ(::symlink("outside", (dir / "link").c_str()), 0);
  EXPECT_EQ(removeAll((dir / "link/").c_str()), 1U);
  EXPECT_FALSE(isThere(dir / "link"));
  expectPrecious();
  EXPECT_EQ(removeAll((tree + "/1").c_str()), 1U);
  EXPECT_FALSE(isThere(tree + "/1"));
}

TEST_F(RemoveAllTest, ItWorksWhereADirectoryTellsNoTypes) {
  const test::UnknownTypes unknownTypes;
  ASSERT_EQ(::symlink("../outside", (tree + "/link").c_str()), 0);
  EXPECT_EQ(removeAll(tree.c_str()), 7U);
  expectPrecious();
}

TEST_F(RemoveAllTest, WhatTheSystemWouldNotRemoveInTheEndIsRefusedAtOnce) {
  for (const char* path : {"/", "//", ".", "./", "..", "a/."}) {
    const auto raised = raisedBy([&] { removeAll(path); });
    EXPECT_EQ(raised.type, "kes::FsError") << path;
    EXPECT_EQ(raised.errnum, EINVAL) << path;
  }
  const auto raised = raisedBy([&] { removeAll((tree + "/a/..").c_str()); });
  EXPECT_EQ(raised.errnum, EINVAL);
  EXPECT_TRUE(isThere(tree + "/1"));
  EXPECT_EQ(raisedBy([] { removeAll(nullptr); }).errnum, EFAULT);
}

TEST_F(RemoveAllTest, ATreeMayBeDeeperThanAPathCanBeLong) {
  int fd = ::open(tree.c_str(), O_RDONLY | O_DIRECTORY);
  for (int level = 0; level < 300; ++level) {
    ::mkdirat(fd, "a-rather-long-name", 0700);
    const int next = ::openat(fd, "a-rather-long-name", O_RDONLY | O_DIRECTORY);
    ::close(fd);
    fd = next;
  }
  ::close(fd);
  EXPECT_EQ(removeAll(tree.c_str()), 306U);
  EXPECT_FALSE(isThere(tree));
}

TEST_F(RemoveAllTest, ThreeDescriptorsAreEnough) {
  std::string deep = tree + "/a/b";
  for (int level = 0; level < 30; ++level) ::mkdir((deep += "/c").c_str(), 0700);
  const auto result = inChild([&] {
    const test::FewDescriptors few(3);
    return removeAll(tree.c_str()) == 36 ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0) << result.err;
}

/// Puts a link to "outside" in the place of the directory `path`, which is moved aside.
void putLink(const std::string& path) {
  const std::string top = path.substr(0, path.rfind("/tree"));
  ::rename(path.c_str(), (top + "/aside").c_str());
  static_cast<void>(::symlink((top + "/outside").c_str(), path.c_str()) == 0);
}

TEST_F(RemoveAllTest, ALinkThatTakesTheDirectorysPlaceJustBeforeItIsEnteredIsRemovedItself) {
  for (const char* name : {"/a", ""}) {
    removeAll((dir / "aside").c_str());
    make();
    const Before before(Call::openat, [this, name] { putLink(tree + name); });
    raisedBy([&] { removeAll(tree.c_str()); });
    expectPrecious();
  }
}

TEST_F(RemoveAllTest, NothingOutsideIsTouchedWhileSomebodySwapsDirectoriesForLinks) {
  std::atomic<bool> over{false};
  std::thread hostile([&] {
    while (!over) {
      putLink(tree + "/a");
      ::unlink((tree + "/a").c_str());
      ::rename((dir / "aside").c_str(), (tree + "/a").c_str());
    }
  });
  for (int round = 0; round < 300; ++round) {
    raisedBy([&] { removeAll(tree.c_str()); });
    make();
  }
  over = true;
  hostile.join();
  expectPrecious();
}

/// Runs something before the first directory is removed.
struct BeforeRmdir : Instead<Call::unlinkat> {
  explicit BeforeRmdir(std::function<void()> play)
      : Instead([play = std::move(play), isOver = false](int folder, const char* name, int flags) mutable {
          if ((flags & AT_REMOVEDIR) != 0 && !std::exchange(isOver, true)) play();
          return real<Call::unlinkat>(folder, name, flags);
        }) {}
};

TEST_F(RemoveAllTest, ADirectoryThatIsFilledMeanwhileIsAnErrorWithItsPath) {
  const BeforeRmdir before([this] { writeFile(tree + "/a/b/late", "late"); });
  const auto raised = raisedBy([&] { removeAll(tree.c_str()); });
  EXPECT_EQ(raised.type, "kes::FsError");
  EXPECT_EQ(raised.errnum, ENOTEMPTY);
  EXPECT_EQ(raised.text, tree + "/a/b");
}

TEST_F(RemoveAllTest, WhatSomebodyElseRemovesFirstIsNoError) {
  const BeforeRmdir before([this] { ::rmdir((tree + "/a/b").c_str()); });
  EXPECT_EQ(removeAll(tree.c_str()), 5U);
  EXPECT_FALSE(isThere(tree));
}

TEST_F(RemoveAllTest, EveryCallThatFailsIsAnErrorWithThePathOfTheEntry) {
  const auto before = test::openDescriptors();
  for (const Call call : {Call::openat, Call::fdopendir, Call::readdir, Call::fstat, Call::unlinkat}) {
    make();
    const int option = call == Call::unlinkat ? AT_REMOVEDIR : test::Which::any;
    const Refuse failing(call, EIO, {.skip = 1, .times = 1, .option = option});
    const auto raised = raisedBy([&] { removeAll(tree.c_str()); });
    EXPECT_EQ(raised.type, "kes::FsError") << test::infoOf(call).name;
    EXPECT_EQ(raised.errnum, EIO) << test::infoOf(call).name;
    EXPECT_THAT(raised.text, testing::StartsWith(tree)) << test::infoOf(call).name;
  }
  make();
  const Refuse failing(Call::unlinkat, EROFS, {.skip = 1});
  EXPECT_EQ(raisedBy([&] { removeAll(tree.c_str()); }).errnum, EROFS);
  EXPECT_EQ(test::openDescriptors(), before);
}

TEST_F(RemoveAllTest, WithoutTheRightItIsAnAccessErrorAndAnEmptyDirectoryThatIsClosedGoes) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  ::chmod(dir.path().c_str(), 0777);
  ::chmod((dir.path() + "/..").c_str(), 0755);
  ::chmod(tree.c_str(), 0755);
  const auto result = asNobody([&] {
    const auto raised = raisedBy([&] { removeAll((tree + "/1").c_str()); });
    if (raised.type != "kes::FileAccessError" || raised.errnum != EACCES) return 1;
    if (raisedBy([&] { removeAll(tree.c_str()); }).type != "kes::FileAccessError") return 2;
    ::mkdir((dir / "own").c_str(), 0700);
    ::mkdir((dir / "own/closed").c_str(), 0);
    return removeAll((dir / "own").c_str()) == 2 ? 0 : 3;
  });
  EXPECT_EQ(result.exitCode(), 0) << result.err;
  EXPECT_TRUE(isThere(tree + "/1"));
}

TEST_F(RemoveAllTest, WithoutMemoryItIsBadAllocAndCanBeTriedAgain) {
  const auto before = test::openDescriptors();
  EXPECT_GT(test::starve([&] { removeAll(tree.c_str()); }), 0U);
  EXPECT_FALSE(isThere(tree));
  EXPECT_EQ(test::openDescriptors(), before);
}

}  // namespace
}  // namespace kes::fs
