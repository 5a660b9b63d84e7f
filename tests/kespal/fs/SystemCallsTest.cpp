#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>

#include "kespal/fs/Access.h"
#include "kespal/fs/Dir.h"
#include "kespal/fs/Info.h"
#include "kespal/fs/Ops.h"
#include "kespal/fs/Path.h"
#include "support/Sanitizer.h"
#include "support/SystemCalls.h"
#include "support/TempDir.h"

// An operation costs what the plain call behind it costs, and that is counted.

namespace kes::fs {
namespace {

using Calls = std::vector<long>;

class SystemCallsTest : public testing::Test {
 protected:
  SystemCallsTest() {
    test::writeFile(file_, "");
    std::filesystem::create_symlink("file", link_);
    std::filesystem::create_directory(dir_ / "sub");
  }

  void SetUp() override {
    KES_SKIP_UNDER_SANITIZERS("makes calls of its own");
    if (!test::systemCallsOf([] {})) GTEST_SKIP() << "this machine does not let a process be traced";
  }

  /// The calls that a body makes.
  static Calls callsOf(const std::function<void()>& body) { return test::systemCallsOf(body).value(); }

  /// The same calls as the plain one behind it, and only one.
  static void expectTheOneCallOf(const std::function<void()>& plain, const std::function<void()>& ours) {
    const Calls calls = callsOf(plain);
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_EQ(callsOf(ours), calls);
  }

  test::TempDir dir_;
  const std::string file_ = dir_ / "file", link_ = dir_ / "link";
  const char* const file = file_.c_str();
  const char* const link = link_.c_str();
  const char* const top = dir_.path().c_str();
};

TEST_F(SystemCallsTest, TheStatusOfAFileIsOneCall) {
  struct stat status;
  Info info;
  expectTheOneCallOf([&] { ::stat(file, &status); }, [&] { info = Info::get(file, true); });
  expectTheOneCallOf([&] { ::lstat(file, &status); }, [&] { info = Info::get(file, false); });
  const int fd = ::open(file, O_RDONLY | O_CLOEXEC);
  expectTheOneCallOf([&] { ::fstat(fd, &status); }, [&] { info = Info::get(fd); });
  ::close(fd);
}

TEST_F(SystemCallsTest, WhatAPathAsksTheSystemIsOneCallEach) {
  struct stat status;
  char buffer[PATH_MAX];
  Path path(link_), relative("a/b");
  expectTheOneCallOf([&] { ::stat(file, &status); }, [&] { (void)path.exists(); });
  expectTheOneCallOf([&] { (void)!::readlink(link, buffer, sizeof buffer); }, [&] { path.assignResolved(); });
  expectTheOneCallOf([&] { (void)!::getcwd(buffer, sizeof buffer); }, [&] { relative.assignAbsolute(); });
  expectTheOneCallOf([&] { (void)!::chdir(top); }, [&] { Ops::setCWD(top); });
}

TEST_F(SystemCallsTest, TheCanonicalPathIsOneLibraryCall) {
  Path path(link_);
  EXPECT_EQ(callsOf([&] { path.assignCanonical(); }), callsOf([&] { ::free(::realpath(link, nullptr)); }));
}

TEST_F(SystemCallsTest, TextOperationsAskNothing) {
  Path path("/a/./b.c/../d.tar.gz");
  std::vector<std::string> parts;
  EXPECT_EQ(callsOf([&] {
              path.components(parts);
              path.extensions(parts);
              (void)path.intersection(path + "x");
              (void)path.extension(true);
              path.strip(1).assignDirname().assignBasename().cleanse();
            }),
            Calls{});
}

TEST_F(SystemCallsTest, OwnerAndMaskAreOneCall) {
  expectTheOneCallOf([&] { (void)!::chown(file, -1U, -1U); }, [&] { setOwnership(file, -1, Access()); });
  expectTheOneCallOf([] { ::umask(022); }, [] { Access::setUmask(Access(022)); });
}

TEST_F(SystemCallsTest, AWalkCostsWhatReadingTheStreamCosts) {
  for (int number = 0; number < 3000; ++number) test::writeFile(dir_ / std::to_string(number), "");
  const Calls plain = callsOf([&] {
    DIR* stream = ::opendir(top);
    while (::readdir(stream) != nullptr) continue;
    ::closedir(stream);
  });
  EXPECT_EQ(callsOf([&] {
              Dir dir(top);
              while (dir.nextEntry()) continue;
            }),
            plain);
}

TEST_F(SystemCallsTest, TheInformationOfAnEntryOrOfTheDirectoryIsOneCall) {
  Dir dir(top);
  ASSERT_TRUE(dir.nextEntry());
  Info info;
  struct stat status;
  expectTheOneCallOf([&] { ::fstatat(dir.fd(), "file", &status, 0); }, [&] { dir.entryInfo(info, true); });
  expectTheOneCallOf([&] { ::fstat(dir.fd(), &status); }, [&] { dir.dirInfo(info); });
}

TEST_F(SystemCallsTest, ASubdirectoryIsOpenedWithoutItsPath) {
  Dir dir(top), sub;
  while (dir.nextEntry() && std::string(dir.entryName()) != "sub") continue;
  EXPECT_EQ(callsOf([&] { dir.entryDir(sub); }), callsOf([&] {
              ::fdopendir(::openat(dir.fd(), "sub", O_RDONLY | O_NONBLOCK | O_DIRECTORY | O_CLOEXEC));
            }));
}

TEST_F(SystemCallsTest, AnEmptyDirectoryIsFoundOutByOneReadBeyondItsDots) {
  const std::string sub = dir_ / "sub";
  EXPECT_EQ(callsOf([&] { Dir::isEmpty(sub.c_str()); }), callsOf([&] {
              DIR* stream = ::opendir(sub.c_str());
              while (::readdir(stream) != nullptr) continue;
              ::closedir(stream);
            }));
}

}  // namespace
}  // namespace kes::fs
