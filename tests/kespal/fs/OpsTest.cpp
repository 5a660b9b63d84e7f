#include "kespal/fs/Ops.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kespal/fs/Access.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/FileStatus.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

using test::asNobody;
using test::Call;
using test::inChild;
using test::isThere;
using test::modeOf;
using test::Raised;
using test::raisedBy;
using test::Refuse;
using test::statusOf;
using test::TempDir;
using ::testing::ElementsAre;
using ::testing::StartsWith;

constexpr const char* site = "src/os/posix/fs/Ops";
constexpr const char* accessSite = "src/os/posix/fs/Access";
constexpr const char* none = nullptr;

/// One errno of an operation and the class it becomes.
struct Row {
  int errnum;
  const char* type;
};

/// Walks through a table of an operation: with its system call failing, the class, errno, path, site and
/// name of the error are what the row says.
void walk(Call call, const std::vector<Row>& table, const std::string& path, const std::string& operation,
          const std::function<void()>& run) {
  for (const Row& row : table) {
    const Refuse failing(call, row.errnum);
    EXPECT_EQ(raisedBy(run), (Raised{row.type, row.errnum, path, site, operation}));
  }
}

class OpsTest : public ::testing::Test {
 protected:
  std::string file(const std::string& name, const std::string& content = "content") const {
    test::writeFile(folder_ / name, content);
    return folder_ / name;
  }
  std::string link(const std::string& name, const std::string& target) const {
    EXPECT_EQ(::symlink(target.c_str(), (folder_ / name).c_str()), 0);
    return folder_ / name;
  }
  std::string directory(const std::string& name) const {
    EXPECT_EQ(::mkdir((folder_ / name).c_str(), 0700), 0);
    return folder_ / name;
  }

  const TempDir folder_;
};

TEST_F(OpsTest, TheFlagsHaveTheirMasks) {
  EXPECT_EQ(EnumBitset<Flags>(Flags::COPY_ACCESS).mask(), 0x1u);
  EXPECT_EQ(EnumBitset<Flags>(Flags::NO_FOLLOW).mask(), 0x2u);
  EXPECT_EQ(EnumBitset<Flags>(Flags::OVERWRITE).mask(), 0x4u);
  EXPECT_EQ((Flags::COPY_ACCESS | Flags::OVERWRITE).mask(), 0x5u);
}

// --- removing one entry

TEST_F(OpsTest, EveryErrnoOfRemovingAFileHasItsClass) {
  walk(Call::unlink,
       {{EACCES, "kes::FileAccessError"},
        {EPERM, "kes::FileAccessError"},
        {ENOENT, "kes::FsError"},
        {EISDIR, "kes::FsError"},
        {EBUSY, "kes::FsError"},
        {EROFS, "kes::FsError"},
        {ENOTDIR, "kes::FsError"},
        {12345, "kes::FsError"}},
       "/a/b", "removeFile", [] { Ops::removeFile("/a/b"); });
}

TEST_F(OpsTest, RemovingAFileRemovesTheNameAndNotWhatALinkLeadsTo) {
  const std::string target = file("target"), name = link("link", "target");
  Ops::removeFile(name.c_str());
  EXPECT_FALSE(isThere(name));
  EXPECT_TRUE(isThere(target));
  EXPECT_EQ(raisedBy([&] { Ops::removeFile(name.c_str()); }),
            (Raised{"kes::FsError", ENOENT, name, site, "removeFile"}));
}

TEST_F(OpsTest, ADirectoryIsNoFile) {
  const std::string path = directory("dir");
  EXPECT_EQ(raisedBy([&] { Ops::removeFile(path.c_str()); }),
            (Raised{"kes::FsError", EISDIR, path, site, "removeFile"}));
}

TEST_F(OpsTest, AFileInAnotherUsersDirectoryIsAFileAccessErrorForNobody) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const std::string path = file("file");
  const auto child = asNobody([&] {
    std::cout << raisedBy([&] { Ops::removeFile(path.c_str()); });
    return 0;
  });
  EXPECT_EQ(child.out, "kes::FileAccessError 13 \"" + path + "\" at " + site + " (removeFile)");
}

TEST_F(OpsTest, AFileInAStickyDirectoryIsAFileAccessErrorForNobody) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const std::string path = file("file");
  ASSERT_EQ(::chmod(folder_.path().c_str(), 01777), 0);
  const auto child = asNobody([&] {
    std::cout << raisedBy([&] { Ops::removeFile(path.c_str()); });
    return 0;
  });
  EXPECT_EQ(child.out, "kes::FileAccessError 1 \"" + path + "\" at " + site + " (removeFile)");
}

TEST_F(OpsTest, EveryErrnoOfRemovingADirectoryIsAnFsError) {
  walk(Call::rmdir,
       {{EACCES, "kes::FsError"},
        {EPERM, "kes::FsError"},
        {ENOENT, "kes::FsError"},
        {ENOTEMPTY, "kes::FsError"},
        {ENOTDIR, "kes::FsError"},
        {EROFS, "kes::FsError"}},
       "/a/b", "removeDir", [] { Ops::removeDir("/a/b"); });
}

TEST_F(OpsTest, OnlyAnEmptyDirectoryIsRemoved) {
  const std::string path = directory("dir");
  file("dir/file");
  EXPECT_EQ(raisedBy([&] { Ops::removeDir(path.c_str()); }),
            (Raised{"kes::FsError", ENOTEMPTY, path, site, "removeDir"}));
  ASSERT_EQ(::unlink((path + "/file").c_str()), 0);
  Ops::removeDir(path.c_str());
  EXPECT_FALSE(isThere(path));
}

TEST_F(OpsTest, RemoveChoosesByTheEntryItself) {
  const std::string dir = directory("dir"), plain = file("file"), toDir = link("link", "dir"),
                    dangling = link("dangling", "absent");
  for (const std::string& path : {toDir, dangling, plain}) {
    Ops::remove(path.c_str());
    EXPECT_FALSE(isThere(path)) << path;
    EXPECT_TRUE(isThere(dir));
  }
  Ops::remove(dir.c_str());
  EXPECT_FALSE(isThere(dir));
}

TEST_F(OpsTest, RemovingNothingIsANoSuchFileErrorOfTheLook) {
  EXPECT_EQ(raisedBy([&] { Ops::remove((folder_ / "absent").c_str()); }),
            (Raised{"kes::NoSuchFileError", ENOENT, folder_ / "absent", "src/os/posix/fs/Info", "get"}));
}

TEST_F(OpsTest, TryRemoveSaysWhetherThereWasSomething) {
  EXPECT_TRUE(Ops::tryRemove(file("file")));
  EXPECT_TRUE(Ops::tryRemove(directory("dir")));
  EXPECT_TRUE(Ops::tryRemove(link("dangling", "absent")));
  EXPECT_FALSE(Ops::tryRemove(folder_ / "file"));
  EXPECT_FALSE(Ops::tryRemove(folder_ / "absent/file"));
  EXPECT_FALSE(Ops::tryRemove(""));
}

TEST_F(OpsTest, TryRemoveIsFalseAlsoWhenTheEntryVanishesAfterTheLook) {
  const std::string plain = file("file"), dir = directory("dir");
  {
    const test::Before before(Call::unlink, [path = plain] { std::remove(path.c_str()); });
    EXPECT_FALSE(Ops::tryRemove(plain));
  }
  const test::Before before(Call::rmdir, [path = dir] { std::remove(path.c_str()); });
  EXPECT_FALSE(Ops::tryRemove(dir));
}

TEST_F(OpsTest, TryRemovePassesEveryOtherErrorOn) {
  const std::string plain = file("file"), dir = directory("dir");
  file("dir/file");
  EXPECT_EQ(raisedBy([&] { Ops::tryRemove(dir); }),
            (Raised{"kes::FsError", ENOTEMPTY, dir, site, "removeDir"}));
  EXPECT_EQ(raisedBy([&] { Ops::tryRemove(plain + "/x"); }),
            (Raised{"kes::FsError", ENOTDIR, plain + "/x", "src/os/posix/fs/Info", "get"}));
  const Refuse failing(Call::unlink, EPERM);
  EXPECT_EQ(raisedBy([&] { Ops::tryRemove(plain); }),
            (Raised{"kes::FileAccessError", EPERM, plain, site, "removeFile"}));
}

// --- links

TEST_F(OpsTest, EveryErrnoOfMakingALinkHasItsClass) {
  walk(Call::symlink,
       {{EEXIST, "kes::FileExistsError"},
        {ENOENT, "kes::FsError"},
        {EACCES, "kes::FsError"},
        {EPERM, "kes::FsError"},
        {EROFS, "kes::FsError"},
        {ENOSPC, "kes::FsError"}},
       "/new/link", "symlink", [] { Ops::symlink("/new/link", "/target"); });
}

TEST_F(OpsTest, TheNewLinkIsNamedFirst) {
  const std::string path = folder_ / "link";
  Ops::symlink(path.c_str(), "some/target");
  std::string target;
  Ops::readlink(path.c_str(), target);
  EXPECT_EQ(target, "some/target");
  EXPECT_EQ(raisedBy([&] { Ops::symlink(path.c_str(), "other"); }),
            (Raised{"kes::FileExistsError", EEXIST, path, site, "symlink"}));
}

TEST_F(OpsTest, EveryErrnoOfReadingALinkHasItsClass) {
  const std::string plain = file("file"), loop = link("loop", "loop");
  std::string target = "before";
  const auto read = [&](const std::string& path) {
    return raisedBy([&] { Ops::readlink(path.c_str(), target); });
  };
  EXPECT_EQ(read(folder_ / "absent"),
            (Raised{"kes::NoSuchFileError", ENOENT, folder_ / "absent", site, "readlink"}));
  EXPECT_EQ(read(plain + "/x"), (Raised{"kes::NoSuchFileError", ENOTDIR, plain + "/x", site, "readlink"}));
  EXPECT_EQ(read(plain), (Raised{"kes::NotASymlinkError", EINVAL, plain, site, "readlink"}));
  EXPECT_EQ(read(loop + "/x"), (Raised{"kes::FsError", ELOOP, loop + "/x", site, "readlink"}));
  EXPECT_EQ(target, "before");
}

// --- making directories and pipes

TEST_F(OpsTest, EveryErrnoOfMakingADirectoryHasItsClass) {
  walk(Call::mkdir,
       {{EEXIST, "kes::FileExistsError"},
        {ENOENT, "kes::NoSuchFileError"},
        {EACCES, "kes::FsError"},
        {EPERM, "kes::FsError"},
        {ENOTDIR, "kes::FsError"},
        {EROFS, "kes::FsError"},
        {ENOSPC, "kes::FsError"},
        {12345, "kes::FsError"}},
       "/new/dir", "mkdir", [] { Ops::mkdir("/new/dir", nullptr); });
}

TEST_F(OpsTest, ADirectoryBelongsToItsOwnerAloneUnlessRightsAreGiven) {
  const mode_t before = ::umask(0);
  const Access given(01755);
  Ops::mkdir((folder_ / "plain").c_str());
  Ops::mkdir((folder_ / "given").c_str(), &given);
  ::umask(before);
  EXPECT_EQ(modeOf(folder_ / "plain"), 0700u);
  EXPECT_EQ(modeOf(folder_ / "given"), 01755u);
}

TEST_F(OpsTest, ADirectoryGetsTheOwnerThatIsGiven) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  const Access both(12, 34, 0750), group(Access::Unchanged, 56, 0750);
  Ops::mkdir((folder_ / "both").c_str(), &both);
  Ops::mkdir((folder_ / "group").c_str(), &group);
  EXPECT_EQ(statusOf(folder_ / "both").st_uid, 12u);
  EXPECT_EQ(statusOf(folder_ / "both").st_gid, 34u);
  EXPECT_EQ(statusOf(folder_ / "group").st_uid, 0u);
  EXPECT_EQ(statusOf(folder_ / "group").st_gid, 56u);
}

TEST_F(OpsTest, OwnershipIsChangedOnlyWhenItIsGiven) {
  const Access unset(0750), set(::geteuid(), Access::Unchanged, 0750);
  {
    const test::CallTrace trace;
    Ops::mkdir((folder_ / "unset").c_str(), &unset);
    EXPECT_THAT(trace.calls(), ElementsAre("mkdir"));
  }
  const test::CallTrace trace;
  Ops::mkdir((folder_ / "set").c_str(), &set);
  EXPECT_THAT(trace.calls(), ElementsAre("mkdir", "chown"));
}

TEST_F(OpsTest, AFailingOwnershipIsReportedAndTheDirectoryStays) {
  const std::string path = folder_ / "dir";
  const Access given(12, 34, 0750);
  const Refuse failing(Call::chown, EPERM);
  EXPECT_EQ(raisedBy([&] { Ops::mkdir(path.c_str(), &given); }),
            (Raised{"kes::FsError", EPERM, path, accessSite, "setOwnership"}));
  EXPECT_TRUE(isThere(path));
}

TEST_F(OpsTest, ANamedPipeHasTheGivenRights) {
  const mode_t before = ::umask(0);
  Ops::makeFifo(folder_ / "fifo", Access(0640));
  ::umask(before);
  EXPECT_TRUE(S_ISFIFO(statusOf(folder_ / "fifo").st_mode));
  EXPECT_EQ(modeOf(folder_ / "fifo"), 0640u);
  EXPECT_EQ(raisedBy([&] { Ops::makeFifo(folder_ / "fifo", Access(0640)); }),
            (Raised{"kes::FsError", EEXIST, folder_ / "fifo", site, "makeFifo"}));
  walk(Call::mkfifo, {{ENOENT, "kes::FsError"}, {EACCES, "kes::FsError"}, {EROFS, "kes::FsError"}},
       "/new/fifo", "makeFifo", [] { Ops::makeFifo("/new/fifo", Access(0600)); });
}

TEST_F(OpsTest, ATemporaryDirectoryWithABareNameLiesInTheTemporaryDirectory) {
  const auto child = inChild([&] {
    ::setenv("TMPDIR", folder_.path().c_str(), 1);
    std::string name = "job";
    Ops::tempdir(name);
    std::cout << name;
    return 0;
  });
  EXPECT_THAT(child.out, StartsWith(folder_ / "job"));
  EXPECT_EQ(child.out.size(), (folder_ / "job").size() + 6);
  EXPECT_TRUE(S_ISDIR(statusOf(child.out).st_mode));
  EXPECT_EQ(modeOf(child.out), 0700u);
}

TEST_F(OpsTest, ATemporaryDirectoryWithASlashInItsNameStaysWhereTheNameSays) {
  const auto child = inChild([&] {
    Ops::setCWD(folder_.path().c_str());
    std::string name = "./job";
    Ops::tempdir(name);
    std::cout << name;
    return 0;
  });
  EXPECT_THAT(child.out, StartsWith("./job"));
  EXPECT_EQ(child.out.size(), 11u);
  EXPECT_EQ(modeOf(folder_ / child.out), 0700u);
}

TEST_F(OpsTest, AFailingTemporaryDirectoryNamesItsTemplate) {
  std::string name = "/absent/dir/job";
  EXPECT_EQ(raisedBy([&] { Ops::tempdir(name); }),
            (Raised{"kes::FsError", ENOENT, "/absent/dir/jobXXXXXX", site, "tempdir"}));
  EXPECT_EQ(name, "/absent/dir/job");
  walk(Call::mkdtemp, {{EACCES, "kes::FsError"}, {EEXIST, "kes::FsError"}, {EROFS, "kes::FsError"}},
       "/absent/dir/jobXXXXXX", "tempdir", [&] { Ops::tempdir(name); });
}

// --- rights

TEST_F(OpsTest, RightsAreChangedByPathAndByDescriptor) {
  const std::string path = file("file"), name = link("link", "file");
  Ops::setAccess(path.c_str(), Access(07741));
  EXPECT_EQ(modeOf(path), 07741u);
  Ops::setAccess(name.c_str(), Access(0600));
  EXPECT_EQ(modeOf(path), 0600u) << "links are followed";
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  Ops::setAccess(fd, Access(0444));
  EXPECT_EQ(modeOf(path), 0444u);
  Ops::setAccessPriv(path.c_str(), fd, Access(0640));
  EXPECT_EQ(modeOf(path), 0640u);
  Ops::setAccessPriv(nullptr, fd, Access(0));
  EXPECT_EQ(modeOf(path), 0u);
  ::close(fd);
}

TEST_F(OpsTest, TheErrorsOfRightsDependOnTheForm) {
  for (const int errnum : {EPERM, EACCES, ENOENT, EROFS}) {
    const Refuse failing(Call::chmod, errnum);
    EXPECT_EQ(raisedBy([&] { Ops::setAccess("/a/b", Access(0600)); }),
              (Raised{"kes::FsError", errnum, "/a/b", site, "setAccessPriv"}));
  }
  for (const int errnum : {EPERM, EBADF, EROFS}) {
    const Refuse failing(Call::fchmod, errnum);
    EXPECT_EQ(raisedBy([&] { Ops::setAccess(7, Access(0600)); }),
              (Raised{"kes::OsError", errnum, "", site, "setAccessPriv"}));
  }
  EXPECT_EQ(raisedBy([&] { Ops::setAccess(-1, Access(0600)); }),
            (Raised{"kes::OsError", EBADF, "", site, "setAccessPriv"}));
}

TEST_F(OpsTest, OwnershipFollowsTheRightsWhereItIsGiven) {
  const std::string path = file("file");
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const unsigned user = ::geteuid(), unset = Access::Unchanged;
  const auto calls = [](const std::function<void()>& run) {
    const test::CallTrace trace;
    run();
    return trace.calls();
  };
  EXPECT_THAT(calls([&] { Ops::setAccess(path.c_str(), Access(0600)); }), ElementsAre("chmod"));
  EXPECT_THAT(calls([&] { Ops::setAccess(fd, Access(0600)); }), ElementsAre("fchmod"));
  EXPECT_THAT(calls([&] { Ops::setAccess(path.c_str(), Access(user, unset, 0600)); }),
              ElementsAre("chmod", "chown"));
  EXPECT_THAT(calls([&] { Ops::setAccess(fd, Access(user, unset, 0600)); }), ElementsAre("fchmod", "fchown"));
  ::close(fd);
}

TEST_F(OpsTest, RootGivesAFileAwayWithItsSetIdBits) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  const std::string path = file("file");
  Ops::setAccess(path.c_str(), Access(12, 34, 06755));
  EXPECT_EQ(statusOf(path).st_uid, 12u);
  EXPECT_EQ(statusOf(path).st_gid, 34u);
  EXPECT_EQ(modeOf(path), 06755u);
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  Ops::setAccess(fd, Access(56, Access::Unchanged, 04711));
  EXPECT_EQ(statusOf(path).st_uid, 56u);
  EXPECT_EQ(statusOf(path).st_gid, 34u);
  EXPECT_EQ(modeOf(path), 04711u);
  ::close(fd);
}

TEST_F(OpsTest, NobodyCannotGiveAFileAwayButTheRightsAreSet) {
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0777), 0);
  const std::string path = folder_ / "file";
  const auto child = asNobody([&] {
    test::writeFile(path, "");
    std::cout << raisedBy([&] { Ops::setAccess(path.c_str(), Access(0, 0, 0604)); });
    return 0;
  });
  EXPECT_EQ(child.out, "kes::FsError 1 \"" + path + "\" at " + accessSite + " (setOwnership)");
  EXPECT_EQ(modeOf(path), 0604u);
}

TEST_F(OpsTest, NobodyCannotChangeTheRightsOfAnothersFile) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const std::string path = file("file");
  const auto child = asNobody([&] {
    std::cout << raisedBy([&] { Ops::setAccess(path.c_str(), Access(0777)); });
    return 0;
  });
  EXPECT_EQ(child.out, "kes::FsError 1 \"" + path + "\" at " + site + " (setAccessPriv)");
}

// --- null paths

TEST_F(OpsTest, ANullPathCountsAsTheEmptyOne) {
  const auto refused = [](const std::string& operation) {
    return Raised{"kes::FsError", EFAULT, "", site, operation};
  };
  EXPECT_EQ(raisedBy([] { Ops::removeFile(none); }), refused("removeFile"));
  EXPECT_EQ(raisedBy([] { Ops::remove(none); }), refused("removeFile")) << "not a directory, it says";
  EXPECT_EQ(raisedBy([] { Ops::removeDir(none); }), refused("removeDir"));
  EXPECT_EQ(raisedBy([] { Ops::symlink(none, "target"); }), refused("symlink"));
  EXPECT_EQ(raisedBy([] { Ops::mkdir(none); }), refused("mkdir"));
  EXPECT_EQ(raisedBy([] { Ops::setAccess(none, Access(0600)); }), refused("setAccess"));
  EXPECT_EQ(raisedBy([] { Ops::symlink("/link", none); }),
            (Raised{"kes::FsError", EFAULT, "/link", site, "symlink"}));
}

// --- cost

TEST_F(OpsTest, EveryOperationMakesTheCallsItIsMadeOf) {
  const std::string plain = file("file"), dir = directory("dir"), name = link("link", "file");
  const auto calls = [](const std::function<void()>& run) {
    const test::CallTrace trace;
    run();
    return trace.calls();
  };
  EXPECT_THAT(calls([&] { Ops::remove(name.c_str()); }), ElementsAre("lstat", "unlink"));
  EXPECT_THAT(calls([&] { Ops::tryRemove(dir); }), ElementsAre("lstat", "rmdir"));
  EXPECT_THAT(calls([&] { Ops::removeFile(plain.c_str()); }), ElementsAre("unlink"));
  EXPECT_THAT(calls([&] { Ops::mkdir(dir.c_str()); }), ElementsAre("mkdir"));
  EXPECT_THAT(calls([&] { Ops::removeDir(dir.c_str()); }), ElementsAre("rmdir"));
  EXPECT_THAT(calls([&] { Ops::symlink(name.c_str(), "x"); }), ElementsAre("symlink"));
  EXPECT_THAT(calls([&] { Ops::makeFifo(folder_ / "fifo", Access(0600)); }), ElementsAre("mkfifo"));
  std::string temporary = folder_ / "temporary";
  EXPECT_THAT(calls([&] { Ops::tempdir(temporary); }), ElementsAre("mkdtemp"));
}

}  // namespace
}  // namespace kes::fs
