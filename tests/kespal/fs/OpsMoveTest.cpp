#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "kespal/error/FsError.h"
#include "kespal/fs/Access.h"
#include "kespal/fs/Ops.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/FileStatus.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"
#include "support/TempDir.h"
#include "sys/AtEnd.h"

namespace kes::fs {
namespace {

using test::asNobody;
using test::Call;
using test::isThere;
using test::modeOf;
using test::nth;
using test::openDescriptors;
using test::Raised;
using test::raisedBy;
using test::Refuse;
using test::TempDir;
using ::testing::ElementsAre;

namespace stdfs = std::filesystem;

constexpr const char* opsSite = "src/os/posix/fs/Ops";
constexpr const char* moveSite = "src/os/posix/fs/OpsMove";
constexpr const char* infoSite = "src/os/posix/fs/Info";
constexpr const char* fileSite = "src/os/posix/fs/File";
constexpr const char* streamSite = "src/os/posix/fs/StreamFile";
constexpr const char* accessSite = "src/os/posix/fs/Access";

/// Two directories: on one device, or on two.
class MoveTest : public ::testing::Test {
 protected:
  explicit MoveTest(const std::string& elsewhere = "/tmp") : there_(elsewhere) {
    test::writeFile(from_, "content");
    ::chmod(from_.c_str(), 0641);
  }
  ~MoveTest() override { EXPECT_EQ(openDescriptors(), descriptors_) << "a descriptor was left behind"; }

  Raised moving(const EnumBitset<Flags>& flags = {}) const {
    return raisedBy([&] { Ops::move(from_.c_str(), to_.c_str(), flags); });
  }
  std::string arrow() const { return from_ + " -> " + to_; }
  /// What is on disk: the content of both files, "-" where there is none.
  std::string onDisk() const {
    const auto content = [](const std::string& path) { return isThere(path) ? test::readFile(path) : "-"; };
    return content(from_) + '|' + content(to_);
  }

  const std::vector<std::string> descriptors_ = openDescriptors();
  const TempDir here_{"/tmp"};
  const TempDir there_;
  const std::string from_ = here_ / "from";
  const std::string to_ = there_ / "to";
};

// --- renaming

class RenameTest : public MoveTest {
 protected:
  Raised renaming(const EnumBitset<Flags>& flags = {}) const {
    return raisedBy([&] { Ops::rawMove(from_.c_str(), to_.c_str(), flags); });
  }
};

TEST_F(RenameTest, AFileGetsItsNewName) {
  EXPECT_EQ(renaming(), Raised{});
  EXPECT_EQ(onDisk(), "-|content");
}

TEST_F(RenameTest, AnExistingTargetIsRefusedBeforeAnythingIsRenamed) {
  test::writeFile(to_, "old");
  const test::CallTrace trace;
  EXPECT_EQ(renaming(), (Raised{"kes::OsError", EEXIST, "", moveSite, "rawMove"}));
  EXPECT_THAT(trace.calls(), ElementsAre("stat"));
  EXPECT_EQ(onDisk(), "content|old");
}

TEST_F(RenameTest, WithOverwriteAnExistingTargetIsReplacedWithoutALook) {
  test::writeFile(to_, "old");
  const test::CallTrace trace;
  EXPECT_EQ(renaming(Flags::OVERWRITE), Raised{});
  EXPECT_THAT(trace.calls(), ElementsAre("rename"));
  EXPECT_EQ(onDisk(), "-|content");
}

TEST_F(RenameTest, ADanglingLinkAsTargetCountsAsAbsent) {
  stdfs::create_symlink("absent", to_);
  EXPECT_EQ(renaming(), Raised{});
  EXPECT_EQ(onDisk(), "-|content");
}

TEST_F(RenameTest, EveryErrnoOfRenamingHasItsClassAndBothNames) {
  struct Row {
    int errnum;
    const char* type;
  };
  const Row table[] = {{EXDEV, "kes::NotSameDeviceError"},
                       {EROFS, "kes::ReadOnlyFileSystemError"},
                       {EACCES, "kes::FsError"},
                       {EPERM, "kes::FsError"},
                       {ENOENT, "kes::FsError"},
                       {EISDIR, "kes::FsError"},
                       {ENOTEMPTY, "kes::FsError"},
                       {EEXIST, "kes::FsError"},
                       {EBUSY, "kes::FsError"},
                       {12345, "kes::FsError"}};
  for (const Row& row : table) {
    const Refuse failing(Call::rename, row.errnum);
    EXPECT_EQ(renaming(), (Raised{row.type, row.errnum, arrow(), moveSite, "rawMove"}));
  }
}

TEST_F(RenameTest, ErrorsThatTheSystemItselfMakesArriveAsTheirClasses) {
  const auto raw = [](const std::string& from, const std::string& to) {
    return raisedBy([&] { Ops::rawMove(from.c_str(), to.c_str(), Flags::OVERWRITE); });
  };
  const std::string absent = here_ / "absent", dir = here_ / "dir";
  stdfs::create_directory(dir);
  EXPECT_EQ(raw(absent, to_), (Raised{"kes::FsError", ENOENT, absent + " -> " + to_, moveSite, "rawMove"}));
  EXPECT_EQ(raw(from_, dir), (Raised{"kes::FsError", EISDIR, from_ + " -> " + dir, moveSite, "rawMove"}));
  EXPECT_EQ(raw(dir, from_), (Raised{"kes::FsError", ENOTDIR, dir + " -> " + from_, moveSite, "rawMove"}));
  EXPECT_EQ(raw(dir, dir + "/below").errnum, EINVAL);
}

TEST_F(RenameTest, ATargetThatCannotBeLookedAtIsTheLooksError) {
  EXPECT_EQ(raisedBy([&] { Ops::rawMove(from_.c_str(), (from_ + "/x").c_str()); }),
            (Raised{"kes::FsError", ENOTDIR, from_ + "/x", opsSite, "exists"}));
}

TEST_F(RenameTest, NullPathsCountAsEmptyOnes) {
  const auto raw = [](const char* from, const char* to, const EnumBitset<Flags>& flags) {
    return raisedBy([&] { Ops::rawMove(from, to, flags); });
  };
  EXPECT_EQ(raw(nullptr, nullptr, Flags::OVERWRITE),
            (Raised{"kes::FsError", EFAULT, " -> ", moveSite, "rawMove"}));
  EXPECT_EQ(raw("/a", nullptr, Flags::OVERWRITE),
            (Raised{"kes::FsError", EFAULT, "/a -> ", moveSite, "rawMove"}));
  EXPECT_EQ(raw(nullptr, "/absent", {}),
            (Raised{"kes::FsError", EFAULT, " -> /absent", moveSite, "rawMove"}));
  EXPECT_EQ(raw("/a", nullptr, {}), (Raised{"kes::FsError", EFAULT, "", opsSite, "exists"}));
}

// --- moving on one device

TEST_F(MoveTest, OnOneDeviceAMoveIsARename) {
  const test::CallTrace trace;
  EXPECT_EQ(moving(), Raised{});
  EXPECT_THAT(trace.calls(), ElementsAre("stat", "stat", "rename"));
  EXPECT_EQ(onDisk(), "-|content");
}

TEST_F(MoveTest, WithBothFlagsNothingIsLookedAt) {
  const test::CallTrace trace;
  EXPECT_EQ(moving({Flags::NO_FOLLOW, Flags::OVERWRITE}), Raised{});
  EXPECT_THAT(trace.calls(), ElementsAre("rename"));
}

TEST_F(MoveTest, AMissingSourceIsANoSuchFileErrorOfTheLook) {
  stdfs::remove(from_);
  EXPECT_EQ(moving(), (Raised{"kes::NoSuchFileError", ENOENT, from_, infoSite, "get"}));
  EXPECT_EQ(moving(Flags::NO_FOLLOW), (Raised{"kes::FsError", ENOENT, arrow(), moveSite, "rawMove"}));
}

TEST_F(MoveTest, ADanglingLinkIsMovedOnlyWhenItIsNotFollowed) {
  stdfs::remove(from_);
  stdfs::create_symlink("absent", from_);
  EXPECT_EQ(moving(), (Raised{"kes::NoSuchFileError", ENOENT, from_, infoSite, "get"}));
  EXPECT_EQ(moving(Flags::NO_FOLLOW), Raised{});
  EXPECT_TRUE(stdfs::is_symlink(to_));
}

TEST_F(MoveTest, ALinkOnOneDeviceMovesAsALink) {
  stdfs::create_symlink("from", here_ / "link");
  Ops::move((here_ / "link").c_str(), to_.c_str());
  EXPECT_TRUE(stdfs::is_symlink(to_));
  EXPECT_TRUE(isThere(from_));
}

TEST_F(MoveTest, AnExistingTargetIsRefusedAndReplacedWithOverwrite) {
  test::writeFile(to_, "old");
  EXPECT_EQ(moving(), (Raised{"kes::OsError", EEXIST, "", moveSite, "rawMove"}));
  EXPECT_EQ(onDisk(), "content|old");
  EXPECT_EQ(moving(Flags::OVERWRITE), Raised{});
  EXPECT_EQ(onDisk(), "-|content");
}

TEST_F(MoveTest, OnlyAnotherDeviceMakesAMoveCopy) {
  for (const int errnum : {EACCES, EROFS, EBUSY, ENOSPC}) {
    const Refuse failing(Call::rename, errnum);
    EXPECT_EQ(moving().errnum, errnum);
    EXPECT_EQ(onDisk(), "content|-");
  }
}

TEST_F(MoveTest, ABadBufferDoesNotMatterUntilSomethingIsCopied) {
  char byte = 0;
  Ops::move(from_.c_str(), to_.c_str(), {}, &byte, 0);
  EXPECT_EQ(onDisk(), "-|content");
}

// --- moving across devices

class MoveAcrossTest : public MoveTest {
 protected:
  MoveAcrossTest() : MoveTest("/dev/shm") {}
  void SetUp() override {
    struct stat here {
    }, there{};
    ::stat(here_.path().c_str(), &here);
    ::stat(there_.path().c_str(), &there);
    if (here.st_dev == there.st_dev) GTEST_SKIP() << "/tmp and /dev/shm are on one device here";
  }
};

TEST_F(MoveAcrossTest, DataAndRightsArriveAndTheSourceIsGone) {
  EXPECT_EQ(moving(), Raised{});
  EXPECT_EQ(onDisk(), "-|content");
  EXPECT_EQ(modeOf(to_), 0641u);
}

TEST_F(MoveAcrossTest, OwnerAndSetIdBitsArriveForRoot) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  ASSERT_EQ(::chown(from_.c_str(), 12, 34), 0);
  ASSERT_EQ(::chmod(from_.c_str(), 06755), 0);
  EXPECT_EQ(moving(), Raised{});
  struct stat status {};
  ASSERT_EQ(::stat(to_.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 12u);
  EXPECT_EQ(status.st_gid, 34u);
  EXPECT_EQ(modeOf(to_), 06755u);
}

TEST_F(MoveAcrossTest, AnExistingTargetIsRefusedAndReplacedWithOverwrite) {
  test::writeFile(to_, "a longer old content");
  EXPECT_EQ(moving(), (Raised{"kes::OsError", EEXIST, "", moveSite, "rawMove"}));
  EXPECT_EQ(onDisk(), "content|a longer old content");
  EXPECT_EQ(moving(Flags::OVERWRITE), Raised{});
  EXPECT_EQ(onDisk(), "-|content");
}

TEST_F(MoveAcrossTest, ATargetThatAppearsMeanwhileIsNotTouched) {
  const test::Before before(Call::rename, [path = to_] { test::writeFile(path, "new"); });
  EXPECT_EQ(moving(), (Raised{"kes::FsError", EEXIST, to_, fileSite, "open"}));
  EXPECT_EQ(onDisk(), "content|new");
}

TEST_F(MoveAcrossTest, ADanglingLinkAsTargetIsNotTouched) {
  stdfs::create_symlink("absent", to_);
  EXPECT_EQ(moving(), (Raised{"kes::FsError", EEXIST, to_, fileSite, "open"}));
  EXPECT_TRUE(isThere(from_));
  EXPECT_TRUE(stdfs::is_symlink(to_));
}

TEST_F(MoveAcrossTest, ALinkIsFollowedUnlessThatIsRefused) {
  const std::string link = here_ / "link";
  stdfs::create_symlink("from", link);
  EXPECT_EQ(raisedBy([&] { Ops::move(link.c_str(), to_.c_str(), Flags::NO_FOLLOW); }),
            (Raised{"kes::IsASymlinkError", ELOOP, link, fileSite, "open"}));
  EXPECT_TRUE(isThere(link));
  EXPECT_FALSE(isThere(to_));
  Ops::move(link.c_str(), to_.c_str());
  EXPECT_FALSE(isThere(link)) << "the link itself is what is removed";
  EXPECT_EQ(onDisk(), "content|content");
}

TEST_F(MoveAcrossTest, ADirectoryFailsWithTheReadErrorAndStays) {
  const std::string dir = here_ / "dir";
  stdfs::create_directory(dir);
  for (const EnumBitset<Flags> flags : {EnumBitset<Flags>(), Flags::NO_FOLLOW | Flags::OVERWRITE}) {
    EXPECT_EQ(raisedBy([&] { Ops::move(dir.c_str(), to_.c_str(), flags); }),
              (Raised{"kes::OsError", EISDIR, "", streamSite, "read"}));
    EXPECT_TRUE(stdfs::is_directory(dir));
    EXPECT_FALSE(isThere(to_)) << "no empty file under the target's name";
  }
}

TEST_F(MoveAcrossTest, WhatCannotBeCopiedIsRefusedBeforeAnythingIsOpened) {
  const std::string fifo = here_ / "fifo", link = here_ / "link", socket = here_ / "socket";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  ASSERT_EQ(::mknod(socket.c_str(), S_IFSOCK | 0600, 0), 0);
  stdfs::create_symlink("fifo", link);
  const auto refused = [&](const std::string& from, const EnumBitset<Flags>& flags) {
    const test::CallTrace trace;
    EXPECT_EQ(raisedBy([&] { Ops::move(from.c_str(), to_.c_str(), flags); }),
              (Raised{"kes::FsError", EINVAL, from, moveSite, "move"}));
    EXPECT_THAT(trace.calls(), ::testing::Not(::testing::Contains("open")));
    EXPECT_TRUE(isThere(from));
    EXPECT_FALSE(isThere(to_));
  };
  for (const std::string& from : {fifo, socket}) {
    refused(from, {});
    refused(from, Flags::NO_FOLLOW);
    refused(from, Flags::OVERWRITE);
  }
  refused(link, {});
  EXPECT_EQ(raisedBy([&] { Ops::move(link.c_str(), to_.c_str(), Flags::NO_FOLLOW); }),
            (Raised{"kes::IsASymlinkError", ELOOP, link, fileSite, "open"}));
}

TEST_F(MoveAcrossTest, ADeviceIsRefusedToo) {
  const std::string device = here_ / "device";
  if (::mknod(device.c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0) GTEST_SKIP() << "only root makes devices";
  EXPECT_EQ(raisedBy([&] { Ops::move(device.c_str(), to_.c_str()); }),
            (Raised{"kes::FsError", EINVAL, device, moveSite, "move"}));
  EXPECT_TRUE(isThere(device));
}

TEST_F(MoveTest, APipeOnOneDeviceIsRenamed) {
  stdfs::remove(from_);
  ASSERT_EQ(::mkfifo(from_.c_str(), 0600), 0);
  EXPECT_EQ(moving(), Raised{});
  EXPECT_TRUE(stdfs::is_fifo(to_));
}

TEST_F(MoveAcrossTest, ACallersBufferIsUsedAndHalfOfOneRefused) {
  char buffer[4];
  const auto with = [&](char* data, std::size_t size) {
    return raisedBy([&] { Ops::move(from_.c_str(), to_.c_str(), {}, data, size); });
  };
  const Raised bad{"kes::UsageError", 0, "bad buffer passed to Copier instance", "src/fs/Copier", "Copier"};
  EXPECT_EQ(with(buffer, 0), bad);
  EXPECT_EQ(with(nullptr, 4), bad);
  EXPECT_EQ(onDisk(), "content|-");
  const test::CallTrace trace;
  EXPECT_EQ(with(buffer, sizeof buffer), Raised{});
  const auto calls = trace.calls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "read"), 3) << "four bytes, three bytes, the end";
  EXPECT_EQ(onDisk(), "-|content");
}

TEST_F(MoveAcrossTest, HalfABufferIsRefusedWhateverTheSourceIs) {
  const std::string dir = here_ / "dir", fifo = here_ / "fifo";
  stdfs::create_directory(dir);
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  char byte = 0;
  for (const std::string& from : {from_, dir, fifo}) {
    for (const EnumBitset<Flags> flags : {EnumBitset<Flags>(), EnumBitset<Flags>(Flags::NO_FOLLOW)}) {
      EXPECT_EQ(raisedBy([&] { Ops::move(from.c_str(), to_.c_str(), flags, &byte, 0); }).type,
                "kes::UsageError")
          << from;
    }
    EXPECT_TRUE(isThere(from));
  }
  EXPECT_FALSE(isThere(to_));
}

TEST_F(MoveAcrossTest, TheBacktraceOfItsOwnErrorBeginsInTheMove) {
  const std::string fifo = here_ / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  Exception::m_gen_backtraces = true;
  const sys::AtEnd off([] { Exception::m_gen_backtraces = false; });
  try {
    Ops::move(fifo.c_str(), to_.c_str());
    ADD_FAILURE() << "moved";
  } catch (const FsError& error) {
    ASSERT_FALSE(error.backtrace().empty());
    EXPECT_NE(error.backtrace().back().find("move"), std::string::npos) << error.backtrace().back();
  }
}

TEST_F(MoveAcrossTest, WithoutACallersBufferItCopiesInPiecesOf64KiB) {
  test::writeFile(from_, std::string(std::size_t{65536} + 1, 'x'));
  const test::CallTrace trace;
  EXPECT_EQ(moving(), Raised{});
  EXPECT_THAT(trace.calls(),
              ElementsAre("stat", "stat", "rename", "open", "fstat", "open", "fchmod", "fchown", "read",
                          "write", "read", "write", "read", "close", "close", "lstat", "unlink"));
}

/// A step of a move across devices that fails, what is raised, and what is on disk then.
struct Step {
  Call call;
  int errnum;
  int skip;
  const char* type;
  const char* function;
  const char* onDisk;
};

void PrintTo(const Step& step, std::ostream* stream) {
  *stream << test::infoOf(step.call).name << " after " << step.skip;
}

class FailingMoveTest : public MoveAcrossTest, public ::testing::WithParamInterface<Step> {};

TEST_P(FailingMoveTest, RaisesTheErrorOfTheStepAndLeavesWhatTheManualSays) {
  const Step& step = GetParam();
  Raised raised;
  {
    const Refuse failing(step.call, step.errnum, nth(step.skip + 1));
    raised = moving();
  }
  EXPECT_EQ(raised.type, step.type);
  EXPECT_EQ(raised.errnum, step.errnum);
  EXPECT_EQ(raised.function, step.function);
  EXPECT_EQ(onDisk(), step.onDisk);
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, FailingMoveTest,
    ::testing::Values(
        Step{Call::stat, EACCES, 0, "kes::FsError", "get", "content|-"},     // the look for a link
        Step{Call::stat, EACCES, 1, "kes::FsError", "exists", "content|-"},  // the look for a target
        Step{Call::rename, EROFS, 0, "kes::ReadOnlyFileSystemError", "rawMove", "content|-"},
        Step{Call::open, EACCES, 0, "kes::FileAccessError", "open", "content|-"},  // the source
        Step{Call::fstat, EIO, 0, "kes::OsError", "get", "content|-"},
        Step{Call::open, ENOSPC, 1, "kes::FsError", "open", "content|-"},  // the target
        Step{Call::fchmod, EPERM, 0, "kes::OsError", "setAccessPriv",
             "content|"},  // errors of the copy do not clean up
        Step{Call::fchown, EPERM, 0, "kes::FsError", "setOwnership", "content|"},
        Step{Call::read, EIO, 0, "kes::OsError", "read", "content|"},
        Step{Call::write, ENOSPC, 0, "kes::OsError", "write", "content|"},
        Step{Call::read, EIO, 1, "kes::OsError", "read", "content|content"},
        Step{Call::close, EIO, 0, "kes::OsError", "close", "content|content"},     // the source
        Step{Call::close, EDQUOT, 1, "kes::OsError", "close", "content|content"},  // the target
        Step{Call::lstat, EACCES, 0, "kes::FsError", "get", "content|-"},          // errors of the removal do
        Step{Call::unlink, EPERM, 0, "kes::FileAccessError", "removeFile", "content|-"},
        Step{Call::unlink, EBUSY, 0, "kes::FsError", "removeFile", "content|-"}));

TEST_F(MoveAcrossTest, ASourceThatCannotBeRemovedStaysAndItsCopyGoes) {
  const std::string source = "/proc/self/status";
  const Raised raised = raisedBy([&] { Ops::move(source.c_str(), to_.c_str()); });
  EXPECT_EQ(raised, (Raised{"kes::FileAccessError", EPERM, source, opsSite, "removeFile"}));
  EXPECT_FALSE(isThere(to_));
}

TEST_F(MoveAcrossTest, AFailingCleanUpDoesNotHideTheReason) {
  const Refuse removing(Call::unlink, EBUSY), looking(Call::lstat, EACCES, nth(2));
  EXPECT_EQ(moving(), (Raised{"kes::FsError", EBUSY, from_, opsSite, "removeFile"}));
  EXPECT_EQ(onDisk(), "content|content");
}

TEST_F(MoveAcrossTest, ASourceThatVanishedMeanwhileTakesItsCopyBack) {
  const test::Before before(Call::lstat, [path = from_] { stdfs::remove(path); });
  EXPECT_EQ(moving(), (Raised{"kes::NoSuchFileError", ENOENT, from_, infoSite, "get"}));
  EXPECT_EQ(onDisk(), "-|-");
}

TEST_F(MoveAcrossTest, NobodyMovesOwnFilesAndNoOthers) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  ASSERT_EQ(::chmod(here_.path().c_str(), 0777), 0);
  ASSERT_EQ(::chmod(there_.path().c_str(), 0777), 0);
  ASSERT_EQ(::chmod(from_.c_str(), 0644), 0);
  const auto child = asNobody([&] {
    const std::string own = here_ / "own", ownTo = there_ / "own";
    test::writeFile(own, "own");
    Ops::move(own.c_str(), ownTo.c_str());
    std::cout << isThere(own) << test::readFile(ownTo) << '\n' << moving();
    return 0;
  });
  EXPECT_EQ(child.out, "0own\nkes::FsError 1 \"" + to_ + "\" at " + accessSite + " (setOwnership)")
      << child.err;
  EXPECT_EQ(onDisk(), "content|") << "an error of the copy leaves it as far as it got";
}

TEST_F(MoveAcrossTest, AnotherNameOfTheSourceIsNotOverwritten) {
  // Renaming refuses as across devices, as it does between two mounts of one file system.
  stdfs::create_hard_link(from_, here_ / "same");
  const Refuse failing(Call::rename, EXDEV);
  EXPECT_EQ(raisedBy([&] { Ops::move(from_.c_str(), (here_ / "same").c_str(), Flags::OVERWRITE); }),
            (Raised{"kes::FsError", EINVAL, here_ / "same", "src/fs/Copier", "openTarget"}));
  EXPECT_EQ(test::readFile(here_ / "same"), "content");
  EXPECT_EQ(test::readFile(from_), "content");
}

}  // namespace
}  // namespace kes::fs
