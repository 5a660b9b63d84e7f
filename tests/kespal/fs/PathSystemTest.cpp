#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <iostream>

#include "kespal/error/FsError.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/Ops.h"
#include "kespal/fs/Path.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"
#include "support/TempDir.h"

// What a Path asks the system. Tests that change the working directory do so in a forked child.

namespace kes::fs {
namespace {

using test::inChild;
using test::raisedAs;
using test::TempDir;

/// The absolute forms of paths, a line each, asked for in a child that works in `directory`.
std::string absoluteIn(const std::string& directory, const std::vector<std::string>& paths) {
  return inChild([&] {
           Ops::setCWD(directory.c_str());
           for (const std::string& path : paths) std::cout << Path(path).assignAbsolute() << '\n';
           return 0;
         })
      .out;
}

/// Runs a body in a child whose working directory has been removed.
test::ChildResult inRemovedDirectory(const std::function<int()>& body) {
  TempDir dir;
  const std::string gone = dir / "gone";
  return inChild([&] {
    Ops::setCWD((std::filesystem::create_directory(gone), gone).c_str());
    std::filesystem::remove(gone);
    return body();
  });
}

// --- assignAbsolute

TEST(PathSystemTest, ARelativePathGetsTheWorkingDirectoryInFront) {
  TempDir dir;
  const std::string& w = dir.path();
  EXPECT_EQ(absoluteIn(w, {"a", "a/../b", "a//b/", "./x", ".."}),
            w + "/a\n" + w + "/a/../b\n" + w + "/a/b\n" + w + "/./x\n" + w + "/..\n");
}

TEST(PathSystemTest, AnAbsolutePathLosesItsEmptyComponentsOnly) {
  TempDir dir;
  EXPECT_EQ(absoluteIn(dir.path(), {"/a", "//a///./b/", "/a/..", "/.a/b", "/..."}),
            "/a\n/a/./b\n/a/..\n/.a/b\n/...\n");
}

TEST(PathSystemTest, AFirstDotOfAnAbsolutePathIsTheWorkingDirectoryBehindTheSlash) {
  TempDir dir;
  EXPECT_EQ(absoluteIn(dir.path(), {"/./x", "/.", "//./x/."}),
            '/' + dir.path() + "/x\n/" + dir.path() + "\n/" + dir.path() + "/x/.\n");
}

TEST(PathSystemTest, AFirstDotDotOfAnAbsolutePathIsTheDirectoryOfTheWorkingDirectory) {
  TempDir dir;
  const std::string parent = Path(dir.path()).assignDirname();
  EXPECT_EQ(absoluteIn(dir.path(), {"/../x", "/..", "/../.."}),
            '/' + parent + "/x\n/" + parent + "\n/" + parent + "/..\n");
}

TEST(PathSystemTest, InATopLevelDirectoryTheParentIsEmptyAndItsSeparatorsStay) {
  EXPECT_EQ(absoluteIn("/usr", {"/../x", "/..", "/./x"}), "//x\n/\n//usr/x\n");
}

TEST(PathSystemTest, InTheRootTheSlashOfTheDirectoryAndTheSeparatorBothStay) {
  EXPECT_EQ(absoluteIn("/", {"a", "/./x", "/../x", "/."}), "//a\n///x\n///x\n//\n");
}

TEST(PathSystemTest, APathWithoutComponentsStaysAsItIs) {
  EXPECT_EQ(absoluteIn("/usr", {"", "/", "//"}), "\n/\n/\n");
}

TEST(PathSystemTest, AssignAbsoluteReturnsThePathItself) {
  Path path("x");
  EXPECT_EQ(&path.assignAbsolute(), &path);
}

TEST(PathSystemTest, WithoutAWorkingDirectoryOnlyPathsThatNeedOneFail) {
  const auto child = inRemovedDirectory([] {
    for (const char* fine : {"/a/b", "//a", "/", "", "/...", "/a/.."}) {
      std::cout << Path(fine).assignAbsolute() << '\n';
    }
    for (const char* unknown : {"a", "./a", "..", ".", "/.", "/./a", "/..", "/../a"}) {
      Path path(unknown);
      const auto error = raisedAs<RuntimeError>([&] { path.assignAbsolute(); });
      std::cout << path << ": " << error.text() << ' ' << error.file() << ' ' << error.function() << '\n';
    }
    return 0;
  });
  const std::string complaint = ": can't expand path, because CWD doesn't exist src/fs/Path assignAbsolute\n";
  std::string expected = "/a/b\n/a\n/\n\n/...\n/a/..\n";
  for (const char* unknown : {"a", "./a", "..", ".", "/.", "/./a", "/..", "/../a"})
    expected += unknown + complaint;
  EXPECT_EQ(child.out, expected);
  EXPECT_EQ(child.exitCode(), 0) << child.err;
}

// --- the working directory

TEST(PathSystemTest, TheWorkingDirectoryIsTheOneThatWasSet) {
  TempDir dir;
  const auto child = inChild([&] {
    Ops::setCWD(dir.path().c_str());
    std::cout << Ops::cwd();
    return 0;
  });
  EXPECT_EQ(child.out, std::filesystem::canonical(dir.path()).string());
}

TEST(PathSystemTest, ARemovedWorkingDirectoryIsAnOsErrorWithEnoent) {
  const auto child = inRemovedDirectory([] {
    const auto error = raisedAs<OsError>([] { Ops::cwd(); });
    std::cout << error.file() << ' ' << error.function() << ' ' << error.errnum();
    return 0;
  });
  EXPECT_EQ(child.out, "src/os/posix/fs/Ops cwd " + std::to_string(ENOENT));
}

/// Goes down, a directory of 200 characters at a time, until the name is longer than `length`.
void descendBeyond(std::size_t length) {
  const std::string step(200, 'd');
  for (std::size_t depth = Ops::cwd().size(); depth <= length; depth += step.size() + 1) {
    if (::mkdir(step.c_str(), 0700) != 0) throw std::runtime_error("mkdir");
    Ops::setCWD(step.c_str());
  }
}

TEST(PathSystemTest, AWorkingDirectoryUpToThePathMaximumHasItsWholeName) {
  TempDir dir;
  const auto child = inChild([&] {
    Ops::setCWD(dir.path().c_str());
    descendBeyond(PATH_MAX - 500);
    const std::string cwd = Ops::cwd();
    std::cout << cwd.size() << ' ' << (Path("f").assignAbsolute() == cwd + "/f");
    return cwd.size() > PATH_MAX - 500 && cwd.size() < PATH_MAX ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.out << child.err;
}

TEST(PathSystemTest, AWorkingDirectoryBeyondThePathMaximumIsAnErrorAndNeverAShorterName) {
  TempDir dir;
  const auto child = inChild([&] {
    Ops::setCWD(dir.path().c_str());
    descendBeyond(PATH_MAX + 300);
    std::cout << raisedAs<OsError>([] { Ops::cwd(); }).errnum() << ' ';
    std::cout << raisedAs<RuntimeError>([] { Path("f").assignAbsolute(); }).text();
    return 0;
  });
  EXPECT_EQ(child.out, std::to_string(ENAMETOOLONG) + " can't expand path, because CWD doesn't exist")
      << child.err;
}

TEST(PathSystemTest, AChangeToADirectoryThatCannotBeIsAnFsErrorWithThePath) {
  TempDir dir;
  test::writeFile(dir / "file", "");
  const auto missing = raisedAs<FsError>([&] { Ops::setCWD((dir / "none").c_str()); });
  EXPECT_EQ(missing.osError().errnum(), ENOENT);
  EXPECT_EQ(missing.path(), dir / "none");
  EXPECT_STREQ(missing.function(), "setCWD");
  EXPECT_EQ(raisedAs<FsError>([&] { Ops::setCWD((dir / "file").c_str()); }).osError().errnum(), ENOTDIR);
  EXPECT_EQ(raisedAs<FsError>([&] { Ops::setCWD(nullptr); }).osError().errnum(), EFAULT);
}

// --- exists

TEST(PathSystemTest, ExistsFollowsLinks) {
  TempDir dir;
  test::writeFile(dir / "file", "");
  std::filesystem::create_symlink("file", dir / "link");
  std::filesystem::create_symlink("none", dir / "dangling");
  EXPECT_TRUE(Path(dir / "file").exists());
  EXPECT_TRUE(Path(dir.path()).exists());
  EXPECT_TRUE(Path(dir / "link").exists());
  EXPECT_FALSE(Path(dir / "dangling").exists());
  EXPECT_FALSE(Path(dir / "none").exists());
  EXPECT_TRUE(Ops::exists((dir / "dangling").c_str(), false));
  EXPECT_FALSE(Ops::exists((dir / "none").c_str(), false));
}

TEST(PathSystemTest, OnlyEnoentMeansThatAFileDoesNotExist) {
  TempDir dir;
  test::writeFile(dir / "file", "");
  std::filesystem::create_symlink("loop", dir / "loop");
  const auto beneathFile = raisedAs<FsError>([&] { (void)Path(dir / "file/x").exists(); });
  EXPECT_EQ(beneathFile.osError().errnum(), ENOTDIR);
  EXPECT_EQ(beneathFile.path(), dir / "file/x");
  EXPECT_STREQ(beneathFile.function(), "exists");
  EXPECT_EQ(raisedAs<FsError>([&] { (void)Path(dir / "loop").exists(); }).osError().errnum(), ELOOP);
  EXPECT_EQ(raisedAs<FsError>([&] { (void)Path(dir / std::string(300, 'x')).exists(); }).osError().errnum(),
            ENAMETOOLONG);
  EXPECT_EQ(raisedAs<FsError>([&] { Ops::exists(nullptr, true); }).osError().errnum(), EFAULT);
}

TEST(PathSystemTest, ExistsIsRefusedInADirectoryThatCannotBeSearched) {
  TempDir dir;
  std::filesystem::create_directory(dir / "closed");
  test::writeFile(dir / "closed/file", "");
  std::filesystem::permissions(dir / "closed", std::filesystem::perms::none);
  const auto child = test::asNobody([&] {
    return raisedAs<FsError>([&] { (void)Path(dir / "closed/file").exists(); }).osError().errnum() == EACCES
               ? 0
               : 1;
  });
  std::filesystem::permissions(dir / "closed", std::filesystem::perms::owner_all);
  EXPECT_EQ(child.exitCode(), 0) << child.err;
}

// --- assignResolved

TEST(PathSystemTest, ResolvingReplacesTheLinkByItsTargetBehindItsDirectory) {
  TempDir dir;
  std::filesystem::create_symlink("t", dir / "relative");
  std::filesystem::create_symlink("../x/./y", dir / "dotted");
  std::filesystem::create_symlink("/t", dir / "absolute");
  EXPECT_EQ(Path(dir / "relative").assignResolved(), dir / "t");
  EXPECT_EQ(Path(dir / "dotted").assignResolved(), dir / "../x/./y");
  EXPECT_EQ(Path(dir / "absolute").assignResolved(), dir / "/t");
}

TEST(PathSystemTest, OnlyOneLevelIsResolved) {
  TempDir dir;
  std::filesystem::create_symlink("second", dir / "first");
  std::filesystem::create_symlink("third", dir / "second");
  std::filesystem::create_symlink("loop", dir / "loop");
  Path path(dir / "first");
  EXPECT_EQ(&path.assignResolved(), &path);
  EXPECT_EQ(path, dir / "second");
  EXPECT_EQ(Path(dir / "loop").assignResolved(), dir / "loop");
}

TEST(PathSystemTest, ALinkInTheWorkingDirectoryIsResolvedToAnAbsoluteLookingPath) {
  TempDir dir;
  std::filesystem::create_symlink("target", dir / "link");
  const auto child = inChild([&] {
    Ops::setCWD(dir.path().c_str());
    std::cout << Path("link").assignResolved();
    return 0;
  });
  EXPECT_EQ(child.out, "/target");
}

TEST(PathSystemTest, WhatIsNoLinkStaysWhenResolved) {
  TempDir dir;
  test::writeFile(dir / "file", "");
  EXPECT_EQ(Path(dir / "file").assignResolved(), dir / "file");
  EXPECT_EQ(Path(dir.path()).assignResolved(), dir.path());
  EXPECT_EQ(Path("/").assignResolved(), "/");
}

TEST(PathSystemTest, EveryOtherFailureToResolvePropagatesAndThePathStays) {
  TempDir dir;
  test::writeFile(dir / "file", "");
  Path missing(dir / "none");
  const auto error = raisedAs<NoSuchFileError>([&] { missing.assignResolved(); });
  EXPECT_EQ(error.osError().errnum(), ENOENT);
  EXPECT_EQ(error.path(), dir / "none");
  EXPECT_STREQ(error.function(), "readlink");
  EXPECT_EQ(missing, dir / "none");
  EXPECT_EQ(raisedAs<NoSuchFileError>([&] { Path(dir / "file/x").assignResolved(); }).osError().errnum(),
            ENOTDIR);
  EXPECT_EQ(raisedAs<NoSuchFileError>([&] { Path("").assignResolved(); }).osError().errnum(), ENOENT);
  EXPECT_EQ(raisedAs<FsError>([&] { Path(std::string(5000, 'x')).assignResolved(); }).osError().errnum(),
            ENAMETOOLONG);
}

TEST(PathSystemTest, ReadlinkTellsWhatIsNoLinkByItsOwnClass) {
  TempDir dir;
  test::writeFile(dir / "file", "");
  std::string target = "old";
  const auto error = raisedAs<NotASymlinkError>([&] { Ops::readlink((dir / "file").c_str(), target); });
  EXPECT_EQ(error.osError().errnum(), EINVAL);
  EXPECT_EQ(error.path(), dir / "file");
  EXPECT_EQ(target, "old");
  EXPECT_EQ(raisedAs<FsError>([&] { Ops::readlink(nullptr, target); }).osError().errnum(), EFAULT);
}

TEST(PathSystemTest, ATargetOfTheGreatestLengthIsReadWhole) {
  TempDir dir;
  const std::string longest(PATH_MAX - 1, 'x');
  ASSERT_EQ(::symlink(longest.c_str(), (dir / "link").c_str()), 0);
  std::string target;
  Ops::readlink((dir / "link").c_str(), target);
  EXPECT_EQ(target, longest);
  EXPECT_EQ(Path(dir / "link").assignResolved(), dir / longest);
}

// --- assignCanonical

TEST(PathSystemTest, TheCanonicalPathHasNoLinksDotsOrDoubledSlashes) {
  TempDir dir;
  const std::string top = std::filesystem::canonical(dir.path()).string();
  std::filesystem::create_directories(dir / "a/b");
  std::filesystem::create_symlink("a", dir / "link");
  Path path(dir / "link//b/./../b");
  EXPECT_EQ(&path.assignCanonical(), &path);
  EXPECT_EQ(path, top + "/a/b");
  EXPECT_EQ(Path("//").assignCanonical(), "/");
  const auto child = inChild([&] {
    Ops::setCWD((dir / "link").c_str());
    std::cout << Path("b/..").assignCanonical();
    return 0;
  });
  EXPECT_EQ(child.out, top + "/a");
}

TEST(PathSystemTest, AFailureToCanonicaliseCarriesThePathAsGivenAndItsOwnSourceLocation) {
  TempDir dir;
  Path path(dir / "none/./x");
  const auto error = raisedAs<FsError>([&] { path.assignCanonical(); });
  EXPECT_EQ(error.osError().errnum(), ENOENT);
  EXPECT_EQ(error.path(), dir / "none/./x");
  EXPECT_STREQ(error.file(), "os/posix/fs/Path");
  EXPECT_STREQ(error.function(), "assignCanonical");
  EXPECT_EQ(path, dir / "none/./x");
}

TEST(PathSystemTest, EveryReasonNotToCanonicaliseIsReportedWithItsErrno) {
  TempDir dir;
  test::writeFile(dir / "file", "");
  std::filesystem::create_symlink("loop", dir / "loop");
  const auto errnumOf = [](const std::string& text) {
    return raisedAs<FsError>([&] { Path(text).assignCanonical(); }).osError().errnum();
  };
  EXPECT_EQ(errnumOf(""), ENOENT);
  EXPECT_EQ(errnumOf(dir / "file/x"), ENOTDIR);
  EXPECT_EQ(errnumOf(dir / "loop"), ELOOP);
  EXPECT_EQ(errnumOf(dir / std::string(300, 'x')), ENAMETOOLONG);
  EXPECT_EQ(errnumOf('/' + std::string(9000, 'x')), ENAMETOOLONG);
}

TEST(PathSystemTest, ACanonicalPathOfMoreThan1024BytesIsWhole) {
  TempDir dir;
  std::string deep = std::filesystem::canonical(dir.path()).string();
  while (deep.size() < 3000) deep += '/' + std::string(200, 'd');
  std::filesystem::create_directories(deep);
  EXPECT_EQ(Path(deep + "/.").assignCanonical(), deep);
}

TEST(PathSystemTest, CanonicalisingIsRefusedInADirectoryThatCannotBeSearched) {
  TempDir dir;
  std::filesystem::create_directories(dir / "closed/sub");
  std::filesystem::permissions(dir / "closed", std::filesystem::perms::none);
  const auto child = test::asNobody([&] {
    return raisedAs<FsError>([&] { Path(dir / "closed/sub").assignCanonical(); }).osError().errnum() == EACCES
               ? 0
               : 1;
  });
  std::filesystem::permissions(dir / "closed", std::filesystem::perms::owner_all);
  EXPECT_EQ(child.exitCode(), 0) << child.err;
}

}  // namespace
}  // namespace kes::fs
