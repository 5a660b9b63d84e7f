#include "kespal/fs/Dir.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iostream>

#include "kespal/error/FsError.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/DirEntries.h"
#include "kespal/fs/DyingWithoutMemory.h"
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
using test::nth;
using test::once;
using test::openDescriptors;
using test::raisedAs;
using test::Refuse;
using test::TempDir;

Names namesIn(const std::string& path) {
  Dir dir(path.c_str());
  return namesIn(dir);
}

void makeFiles(const std::string& directory, int count) {
  const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (int number = 0; number < count; ++number) {
    const std::string name = "entry-" + std::to_string(number);
    if (::mknodat(fd, name.c_str(), S_IFREG | 0600, 0) != 0) throw std::runtime_error("mknodat");
  }
  ::close(fd);
}

// --- walking

TEST(DirTest, EveryEntryIsSeenOnceWithoutDotAndDotDot) {
  TempDir dir;
  for (const char* name : {"a", "b", ".hidden", "...", "..x", ".x."}) test::writeFile(dir / name, "");
  std::filesystem::create_directory(dir / "sub");
  EXPECT_EQ(namesIn(dir.path()), (Names{"...", "..x", ".hidden", ".x.", "a", "b", "sub"}));
}

TEST(DirTest, AnEmptyDirectoryHasNoEntriesAndTheEndStaysTheEnd) {
  TempDir top;
  Dir dir(top.path().c_str());
  EXPECT_FALSE(dir.nextEntry());
  EXPECT_FALSE(dir.nextEntry());
}

TEST(DirTest, OneHundredThousandEntriesAreAllSeen) {
  TempDir dir(test::inMemory());
  constexpr int count = 100000;
  makeFiles(dir.path(), count);
  Names expected;
  for (int number = 0; number < count; ++number) expected.push_back("entry-" + std::to_string(number));
  std::sort(expected.begin(), expected.end());
  EXPECT_TRUE(namesIn(dir.path()) == expected);
}

TEST(DirTest, ANameMayHaveEveryByteAndTheGreatestLength) {
  TempDir dir;
  Names expected;
  for (int byte = 1; byte < 256; ++byte) {
    if (byte == '/') continue;
    expected.push_back(std::string("n") + static_cast<char>(byte));
    if (byte != '.') expected.push_back(std::string(1, static_cast<char>(byte)));
  }
  expected.push_back(std::string(Dir::maxEntryLen(), 'x'));
  for (const std::string& name : expected) test::writeFile(dir / name, "");
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(namesIn(dir.path()), expected);
  EXPECT_EQ(Dir::maxEntryLen(), 255U);
}

TEST(DirTest, EveryEntryCanBeRemovedWhileItIsTheCurrentOne) {
  TempDir top(test::inMemory());
  makeFiles(top.path(), 3000);
  Dir dir(top.path().c_str());
  int seen = 0;
  for (; dir.nextEntry(); ++seen) ASSERT_EQ(::unlinkat(dir.fd(), dir.entryName(), 0), 0);
  EXPECT_EQ(seen, 3000);
  EXPECT_TRUE(Dir::isEmpty(top.path().c_str()));
}

TEST(DirTest, ADirectoryThatChangesWhileItIsReadShowsWhatStayedOnce) {
  TempDir top(test::inMemory());
  makeFiles(top.path(), 5000);
  Dir dir(top.path().c_str());
  Names seen;
  for (int number = 0; dir.nextEntry(); ++number) {
    seen.emplace_back(dir.entryName());
    // Entries of the other half come and go.
    const std::string other = top / ("entry-" + std::to_string(2500 + number % 2500));
    std::filesystem::remove(other);
    if (number % 3 == 0) test::writeFile(top / ("new-" + std::to_string(number % 50)), "");
  }
  std::sort(seen.begin(), seen.end());
  for (int number = 0; number < 2500; ++number) {
    const std::string name = "entry-" + std::to_string(number);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), name), 1) << name;
  }
}

TEST(DirTest, ADirectoryThatVanishedHasReachedItsEnd) {
  TempDir top;
  const std::string gone = top / "gone";
  std::filesystem::create_directory(gone);
  Dir dir(gone.c_str());
  std::filesystem::remove(gone);
  EXPECT_FALSE(dir.nextEntry());
  Info info;
  dir.dirInfo(info);
  EXPECT_TRUE(info.isDir());
}

TEST(DirTest, ADirectoryThatRefusesToBeReadOnIsAReadError) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root has a directory that others may not read once it is open";
  const auto child = test::inChild([] {
    // Who may read this directory is asked at every read, and not only when it is opened.
    Dir dir(("/proc/" + std::to_string(::getppid()) + "/map_files").c_str());
    if (::seteuid(::getpwnam("nobody")->pw_uid) != 0) return 1;
    const auto error = raisedAs<OsError>([&] {
      while (dir.nextEntry()) continue;
    });
    std::cout << error.function() << ' ' << error.errnum();
    return 0;
  });
  EXPECT_EQ(child.out, "nextEntry " + std::to_string(EACCES)) << child.err;
}

TEST(DirTest, AReadErrorIsRaisedAndDoesNotLookLikeTheEnd) {
  TempDir top;
  makeFiles(top.path(), 5);
  Dir dir(top.path().c_str());
  ASSERT_TRUE(dir.nextEntry());
  const Refuse failing(Call::readdir, EIO, nth(2));
  const auto error = raisedAs<OsError>([&] {
    while (dir.nextEntry()) continue;
  });
  EXPECT_EQ(error.errnum(), EIO);
  EXPECT_STREQ(error.function(), "nextEntry");
  EXPECT_STREQ(error.file(), "src/os/posix/fs/Dir");
  EXPECT_THROW((void)dir.entryName(), UsageError) << "there is no current entry after an error";
  EXPECT_TRUE(dir.nextEntry()) << "the directory can be read on";
}

TEST(DirTest, AnErrnoFromBeforeIsNoReadError) {
  TempDir top;
  Dir dir(top.path().c_str());
  errno = EIO;
  EXPECT_FALSE(dir.nextEntry());
}

TEST(DirTest, ADescriptorClosedByAnotherMakesReadingAndClosingFailForReal) {
  TempDir top;
  const auto child = test::inChild([&] {
    Dir dir(top.path().c_str());
    ::close(dir.fd());
    std::cout << raisedAs<OsError>([&] { dir.nextEntry(); }).errnum() << ' ';
    const auto error = raisedAs<OsError>([&] { dir.close(); });
    std::cout << error.errnum() << ' ' << error.function() << ' ' << dir.isOpen() << dir.fd();
    return 0;
  });
  const std::string bad = std::to_string(EBADF);
  EXPECT_EQ(child.out, bad + ' ' + bad + " close 0-1") << child.err;
}

// --- opening

TEST(DirTest, AMissingDirectoryIsItsOwnClassWithPathAndSite) {
  TempDir top;
  const auto error = raisedAs<NoSuchFileError>([&] { Dir dir((top / "none").c_str()); });
  EXPECT_EQ(error.osError().errnum(), ENOENT);
  EXPECT_EQ(error.path(), top / "none");
  EXPECT_STREQ(error.function(), "open");
  EXPECT_STREQ(error.file(), "src/os/posix/fs/Dir");
}

TEST(DirTest, EveryOtherReasonNotToOpenIsAnFsErrorWithItsErrno) {
  TempDir top;
  test::writeFile(top / "file", "");
  std::filesystem::create_symlink("loop", top / "loop");
  Dir dir;
  const auto errnumOf = [&](const char* path) {
    const auto error = raisedAs<FsError>([&] { dir.open(path); });
    EXPECT_EQ(error.path(), path != nullptr ? path : "");
    EXPECT_STREQ(error.function(), "open");
    return error.osError().errnum();
  };
  EXPECT_EQ(errnumOf((top / "file").c_str()), ENOTDIR);
  EXPECT_EQ(errnumOf((top / "file/x").c_str()), ENOTDIR);
  EXPECT_EQ(errnumOf((top / "loop").c_str()), ELOOP);
  EXPECT_EQ(errnumOf((top / std::string(256, 'x')).c_str()), ENAMETOOLONG);
  EXPECT_EQ(errnumOf(nullptr), EFAULT);
  EXPECT_FALSE(dir.isOpen());
}

TEST(DirTest, ADirectoryThatMayNotBeReadIsAnFsError) {
  TempDir top;
  std::filesystem::create_directory(top / "closed");
  std::filesystem::permissions(top / "closed", std::filesystem::perms::none);
  const auto child = test::asNobody([&] {
    return raisedAs<FsError>([&] { Dir dir((top / "closed").c_str()); }).osError().errnum() == EACCES ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.err;
}

TEST(DirTest, WithoutADescriptorToSpareOpeningIsAnFsError) {
  TempDir top;
  std::filesystem::create_directory(top / "sub");
  test::writeFile(top / "file", "");
  const auto child = test::inChild([&] {
    Dir dir(top.path().c_str()), sub;
    const auto failures = [&] {
      std::vector<int> codes;
      codes.push_back(raisedAs<FsError>([&] { Dir another((top / "file").c_str()); }).osError().errnum());
      codes.push_back(raisedAs<FsError>([&] { dir.entryDir(sub); }).osError().errnum());
      return codes;
    };
    goTo(dir, "file");
    // Once with descriptors: a sanitizer needs some when it sees a class for the first time.
    std::vector<int> codes = failures();
    rlimit limit;
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
    const std::vector<int> without = failures();
    ::setrlimit(RLIMIT_NOFILE, &limit);
    codes.insert(codes.end(), without.begin(), without.end());
    return codes == std::vector<int>{ENOTDIR, ENOTDIR, EMFILE, EMFILE} ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.err;
}

TEST(DirTest, OpeningAgainWalksTheNewDirectoryAndClosesTheOld) {
  TempDir one, two;
  test::writeFile(one / "first", "");
  test::writeFile(two / "second", "");
  const auto before = openDescriptors();
  Dir dir(one.path().c_str());
  dir.nextEntry();
  dir.open(two.path().c_str());
  EXPECT_THROW((void)dir.entryName(), UsageError);
  EXPECT_EQ(openDescriptors().size(), before.size() + 1);
  EXPECT_EQ(namesIn(dir), Names{"second"});
}

TEST(DirTest, ADirectoryThatCannotBeOpenedLeavesTheOpenOneAsItWas) {
  TempDir top;
  test::writeFile(top / "only", "");
  Dir dir(top.path().c_str());
  ASSERT_TRUE(dir.nextEntry());
  EXPECT_THROW(dir.open((top / "none").c_str()), NoSuchFileError);
  EXPECT_STREQ(dir.entryName(), "only");
  EXPECT_FALSE(dir.nextEntry());
}

TEST(DirTest, ADirectoryCanBeOpenedByTheNameOfItsOwnEntry) {
  TempDir top;
  std::filesystem::create_directories(top / "sub/inner");
  const auto child = test::inChild([&] {
    if (::chdir(top.path().c_str()) != 0) return 1;
    Dir dir(".");
    dir.nextEntry();
    dir.open(dir.entryName());
    dir.nextEntry();
    std::cout << dir.entryName();
    return 0;
  });
  EXPECT_EQ(child.out, "inner");
}

// --- closing

TEST(DirTest, ClosingTwiceOrWithoutOpeningIsNothing) {
  TempDir top;
  Dir dir;
  dir.close();
  dir.open(top.path().c_str());
  dir.close();
  dir.close();
  EXPECT_FALSE(dir.isOpen());
  EXPECT_EQ(dir.fd(), -1);
}

TEST(DirTest, AFailureToCloseIsAnOsErrorAndTheDirectoryCountsAsClosed) {
  TempDir top;
  Dir dir(top.path().c_str());
  const Refuse failing(Call::closedir, EIO, once);
  const auto error = raisedAs<OsError>([&] { dir.close(); });
  EXPECT_EQ(error.errnum(), EIO);
  EXPECT_STREQ(error.function(), "close");
  EXPECT_FALSE(dir.isOpen());
  dir.close();
}

TEST(DirTest, ADestructorReportsWithoutMemoryAndThroughABrokenStream) {
  test::expectReportOfDying(
      Call::closedir, [] { return new Dir("/"); }, "WARNING: directory not closed:\n");
}

TEST(DirTest, ADestructorReportsAFailureToCloseAndLetsNothingOut) {
  TempDir top;
  const auto child = test::inChild([&] {
    const Refuse failing(Call::closedir, EIO);
    const Dir dir(top.path().c_str());
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_EQ(child.err.rfind("WARNING: ", 0), 0u) << child.err;
  EXPECT_NE(child.err.find("System/Library call error: " + OsError(EIO).text()), std::string::npos)
      << child.err;
}

// --- misuse

TEST(DirTest, WithoutAnOpenDirectoryEverythingIsAUsageError) {
  Dir dir, other;
  Info info;
  const std::function<void()> calls[] = {[&] { dir.dirInfo(info); },         [&] { dir.nextEntry(); },
                                         [&] { dir.entryInfo(info, true); }, [&] { dir.entryDir(other); },
                                         [&] { (void)dir.entryName(); },     [&] { (void)dir.entryType(); }};
  for (const auto& call : calls) EXPECT_EQ(raisedAs<UsageError>(call).text(), "No directory is open");
  EXPECT_STREQ(raisedAs<UsageError>(calls[0]).function(), "dirInfo");
}

TEST(DirTest, WithoutACurrentEntryQuestionsAboutItAreUsageErrors) {
  TempDir top;
  test::writeFile(top / "file", "");
  Dir dir(top.path().c_str()), other;
  Info info;
  const std::function<void()> calls[] = {[&] { dir.entryInfo(info, true); }, [&] { dir.entryDir(other); },
                                         [&] { (void)dir.entryName(); }, [&] { (void)dir.entryType(); }};
  for (const auto& call : calls)
    EXPECT_EQ(raisedAs<UsageError>(call).text(), "No current entry") << "at the start";
  ASSERT_TRUE(dir.nextEntry());
  dir.init();
  for (const auto& call : calls)
    EXPECT_EQ(raisedAs<UsageError>(call).text(), "No current entry") << "after init";
  while (dir.nextEntry()) continue;
  for (const auto& call : calls)
    EXPECT_EQ(raisedAs<UsageError>(call).text(), "No current entry") << "at the end";
}

// --- isEmpty

TEST(DirTest, OnlyDotAndDotDotMakeADirectoryEmpty) {
  TempDir top;
  EXPECT_TRUE(Dir::isEmpty(top.path().c_str()));
  test::writeFile(top / ".x", "");
  EXPECT_FALSE(Dir::isEmpty(top.path().c_str()));
}

TEST(DirTest, ErrorsOfOpenComeOutOfIsEmpty) {
  TempDir top;
  test::writeFile(top / "file", "");
  EXPECT_STREQ(raisedAs<NoSuchFileError>([&] { Dir::isEmpty((top / "none").c_str()); }).function(), "open");
  EXPECT_EQ(raisedAs<FsError>([&] { Dir::isEmpty((top / "file").c_str()); }).osError().errnum(), ENOTDIR);
}

// --- descriptors

TEST(DirTest, ADirectoryHoldsOneDescriptorThatNoProgramInherits) {
  TempDir top;
  std::filesystem::create_directory(top / "sub");
  const auto before = openDescriptors();
  {
    Dir dir(top.path().c_str()), sub;
    EXPECT_EQ(openDescriptors().size(), before.size() + 1);
    EXPECT_TRUE(test::isCloseOnExec(dir.fd()));
    dir.nextEntry();
    dir.entryDir(sub);
    EXPECT_EQ(openDescriptors().size(), before.size() + 2);
    EXPECT_TRUE(test::isCloseOnExec(sub.fd()));
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST(DirTest, NoFailureLeavesADescriptorBehind) {
  TempDir top;
  test::writeFile(top / "file", "");
  const auto before = openDescriptors();
  Dir sub;
  EXPECT_THROW(Dir((top / "none").c_str()), NoSuchFileError);
  EXPECT_THROW(Dir((top / "file").c_str()), FsError);
  EXPECT_THROW(Dir::isEmpty((top / "none").c_str()), NoSuchFileError);
  {
    Dir dir(top.path().c_str());
    dir.nextEntry();
    EXPECT_THROW(dir.entryDir(sub), FsError);
  }
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace kes::fs
