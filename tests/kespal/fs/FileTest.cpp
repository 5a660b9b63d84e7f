#include "kespal/fs/File.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

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
using test::modeOf;
using test::openDescriptors;
using test::Raised;
using test::raisedBy;
using test::Refuse;
using test::TempDir;
using ::testing::EndsWith;
using ::testing::StartsWith;

constexpr const char* site = "src/os/posix/fs/File";

int statusFlags(const File& file) { return ::fcntl(file.fd(), F_GETFL); }

Raised opened(const std::string& path, unsigned flags = 0) {
  return raisedBy([&] { File().open(path.c_str(), File::READ, flags); });
}

TEST(FileTest, ANewFileHoldsNothingAndClosesQuietly) {
  File file;
  EXPECT_EQ(file.fd(), -1);
  file.close();
  EXPECT_EQ(file.fd(), -1);
}

TEST(FileTest, TheModesAndFlagsHaveTheirNumbers) {
  EXPECT_EQ(File::READ, 0);
  EXPECT_EQ(File::WRITE, 1);
  EXPECT_EQ(File::READ_WRITE, 2);
  EXPECT_EQ(File::CREATE, 0x1u);
  EXPECT_EQ(File::EXCLUSIVE, 0x2u);
  EXPECT_EQ(File::TRUNCATE, 0x4u);
  EXPECT_EQ(File::NO_FOLLOW, 0x8u);
  EXPECT_STREQ(NULLDEV, "/dev/null");
}

TEST(FileTest, EveryModeOpensWithItsAccessAndAnyOtherReadsOnly) {
  const std::vector<std::pair<int, int>> table = {{0, O_RDONLY}, {1, O_WRONLY},  {2, O_RDWR},
                                                  {3, O_RDONLY}, {-1, O_RDONLY}, {1 << 20, O_RDONLY}};
  for (const auto& [mode, access] : table) {
    File file;
    file.open("/dev/null", static_cast<File::Mode>(mode));
    EXPECT_EQ(statusFlags(file) & O_ACCMODE, access) << mode;
    EXPECT_TRUE(test::isCloseOnExec(file.fd()));
  }
}

TEST(FileTest, EveryCombinationOfFlagsDoesWhatItsBitsSay) {
  const TempDir folder;
  for (unsigned flags = 0; flags < 16; ++flags) {
    const std::string absent = folder / ("absent" + std::to_string(flags));
    const std::string present = folder / ("present" + std::to_string(flags));
    test::writeFile(present, "content");
    const bool exclusive = (flags & File::EXCLUSIVE) != 0, creates = exclusive || (flags & File::CREATE) != 0;
    const auto open = [&](const std::string& path) {
      return raisedBy([&] { File().open(path.c_str(), File::WRITE, flags); });
    };
    EXPECT_EQ(open(absent),
              creates ? Raised{} : (Raised{"kes::NoSuchFileError", ENOENT, absent, site, "open"}))
        << flags;
    EXPECT_EQ(open(present), !exclusive ? Raised{} : (Raised{"kes::FsError", EEXIST, present, site, "open"}))
        << flags;
    EXPECT_EQ(test::readFile(present), !exclusive && (flags & File::TRUNCATE) != 0 ? "" : "content") << flags;
  }
}

TEST(FileTest, BitsThatAreNoFlagMeanNothing) {
  const TempDir folder;
  test::writeFile(folder / "file", "content");
  EXPECT_EQ(opened(folder / "file", 0xFFFFFFF0u), Raised{});
  EXPECT_EQ(opened(folder / "absent", 0xFFFFFFF0u).errnum, ENOENT);
  EXPECT_EQ(test::readFile(folder / "file"), "content");
}

TEST(FileTest, ACreatedFileBelongsToItsOwnerAloneUnlessRightsAreGiven) {
  const TempDir folder;
  const ::mode_t before = ::umask(0);
  const Access given(04751);
  File().open((folder / "plain").c_str(), File::WRITE, File::CREATE);
  File().open((folder / "given").c_str(), File::WRITE, File::CREATE, &given);
  ::umask(027);
  File().open((folder / "masked").c_str(), File::WRITE, File::CREATE, &given);
  ::umask(before);
  EXPECT_EQ(modeOf(folder / "plain"), 0600u);
  EXPECT_EQ(modeOf(folder / "given"), 04751u);
  EXPECT_EQ(modeOf(folder / "masked"), 04750u);
}

TEST(FileTest, TheRightsOfACreatedFileAreThoseThatStatShows) {
  const TempDir folder;
  const auto child = inChild([&] {
    ::umask(0);
    const Access given(06751);
    File().open((folder / "given").c_str(), File::WRITE, File::EXCLUSIVE, &given);
    File().open((folder / "plain").c_str(), File::WRITE, File::EXCLUSIVE);
    return std::system(("cd '" + folder.path() + "' && stat -c %a-%s given plain").c_str());
  });
  EXPECT_EQ(child.out, "6751-0\n600-0\n") << child.err;
}

TEST(FileTest, RightsDoNotTouchAFileThatExists) {
  const TempDir folder;
  test::writeFile(folder / "file", "");
  const mode_t before = modeOf(folder / "file");
  const Access given(0777);
  File().open((folder / "file").c_str(), File::WRITE, File::CREATE, &given);
  EXPECT_EQ(modeOf(folder / "file"), before);
}

TEST(FileTest, ExclusiveOnAnExistingFileIsAPlainFsError) {
  const TempDir folder;
  test::writeFile(folder / "file", "");
  EXPECT_EQ(opened(folder / "file", File::EXCLUSIVE),
            (Raised{"kes::FsError", EEXIST, folder / "file", site, "open"}));
}

TEST(FileTest, ALinkIsFollowedUnlessThatIsRefused) {
  const TempDir folder;
  test::writeFile(folder / "file", "");
  ASSERT_EQ(::symlink("file", (folder / "link").c_str()), 0);
  EXPECT_EQ(opened(folder / "link"), Raised{});
  EXPECT_EQ(opened(folder / "link", File::NO_FOLLOW),
            (Raised{"kes::IsASymlinkError", ELOOP, folder / "link", site, "open"}));
}

TEST(FileTest, ALoopOfLinksIsASymlinkErrorOnlyWhenLinksWereRefused) {
  const TempDir folder;
  ASSERT_EQ(::symlink("loop", (folder / "loop").c_str()), 0);
  EXPECT_EQ(opened(folder / "loop"), (Raised{"kes::FsError", ELOOP, folder / "loop", site, "open"}));
  // The loop lies on the way, but who asked for NO_FOLLOW gets the same class.
  EXPECT_EQ(opened(folder / "loop/file", File::NO_FOLLOW),
            (Raised{"kes::IsASymlinkError", ELOOP, folder / "loop/file", site, "open"}));
}

TEST(FileTest, EveryErrnoOfOpenHasItsClass) {
  struct Row {
    int errnum;
    unsigned flags;
    const char* type;
  };
  const Row table[] = {
      {EPERM, 0, "kes::FileAccessError"},
      {EACCES, 0, "kes::FileAccessError"},
      {ENOENT, 0, "kes::NoSuchFileError"},
      {ETXTBSY, 0, "kes::FileBusyError"},
      {ELOOP, File::NO_FOLLOW, "kes::IsASymlinkError"},
      {ELOOP, 0, "kes::FsError"},
      {EEXIST, 0, "kes::FsError"},
      {EROFS, 0, "kes::FsError"},
      {EISDIR, 0, "kes::FsError"},
      {EXDEV, 0, "kes::FsError"},
      {ENOTDIR, File::NO_FOLLOW, "kes::FsError"},
      {EINTR, 0, "kes::FsError"},
      {EMFILE, 0, "kes::FsError"},
      {ENOSPC, 0, "kes::FsError"},
      {EINVAL, 0, "kes::FsError"},
      {12345, 0, "kes::FsError"},
  };
  for (const Row& row : table) {
    const Refuse failing(Call::open, row.errnum);
    EXPECT_EQ(opened("/some/where", row.flags), (Raised{row.type, row.errnum, "/some/where", site, "open"}));
  }
}

TEST(FileTest, ErrorsThatTheSystemItselfMakesArriveAsTheirClasses) {
  const TempDir folder;
  test::writeFile(folder / "file", "");
  EXPECT_EQ(opened(folder / "absent").type, "kes::NoSuchFileError");
  EXPECT_EQ(opened(folder / "file/below"),
            (Raised{"kes::FsError", ENOTDIR, folder / "file/below", site, "open"}));
  EXPECT_EQ(raisedBy([&] { File().open(folder.path().c_str(), File::WRITE); }),
            (Raised{"kes::FsError", EISDIR, folder.path(), site, "open"}));
  EXPECT_EQ(opened(folder / std::string(300, 'n')).errnum, ENAMETOOLONG);
  EXPECT_EQ(opened(""), (Raised{"kes::NoSuchFileError", ENOENT, "", site, "open"}));
}

TEST(FileTest, ARunningProgramIsBusyForWriters) {
  if (::access("/proc/self/exe", W_OK) != 0) GTEST_SKIP() << "this user may not write to the test program";
  EXPECT_EQ(raisedBy([] { File().open("/proc/self/exe", File::WRITE); }),
            (Raised{"kes::FileBusyError", ETXTBSY, "/proc/self/exe", site, "open"}));
}

TEST(FileTest, AForbiddenFileIsAFileAccessErrorForNobody) {
  const TempDir folder;
  test::writeFile(folder / "secret", "");
  ASSERT_EQ(::chmod((folder / "secret").c_str(), 0), 0);
  const auto child = asNobody([&] {
    std::cout << opened(folder / "secret");
    return 0;
  });
  EXPECT_EQ(child.out, "kes::FileAccessError 13 \"" + (folder / "secret") + "\" at " + site + " (open)");
}

TEST(FileTest, ANullPathCountsAsTheEmptyOne) {
  File file;
  EXPECT_EQ(raisedBy([&] { file.open(static_cast<const char*>(nullptr), File::READ); }),
            (Raised{"kes::FsError", EFAULT, "", site, "open"}));
  EXPECT_EQ(file.fd(), -1);
}

TEST(FileTest, OpeningClosesTheOldDescriptorFirst) {
  const auto before = openDescriptors();
  File file;
  file.open("/dev/null", File::READ);
  const int first = file.fd();
  file.open("/dev/zero", File::READ);
  EXPECT_EQ(file.fd(), first) << "the number is free again when the new file is opened";
  EXPECT_NE(raisedBy([&] { file.open("/absent", File::READ); }), Raised{});
  EXPECT_EQ(file.fd(), -1);
  EXPECT_EQ(openDescriptors(), before);
}

TEST(FileTest, AFailingCloseOfTheOldDescriptorEndsTheOpening) {
  const auto before = openDescriptors();
  File file;
  file.open("/dev/null", File::READ);
  const Refuse failing(Call::close, EIO);
  EXPECT_EQ(raisedBy([&] { file.open("/dev/zero", File::READ); }),
            (Raised{"kes::OsError", EIO, "", site, "close"}));
  EXPECT_EQ(file.fd(), -1);
  EXPECT_EQ(openDescriptors(), before);
}

TEST(FileTest, TheStandardDescriptorsAreFilesLikeAnyOther) {
  const auto child = inChild([] {
    ::close(0);
    ::close(1);
    ::close(2);
    File in, out, err;
    in.open("/dev/null", File::READ);
    out.open("/dev/null", File::WRITE);
    err.open("/dev/null", File::WRITE);
    if (in.fd() != 0 || out.fd() != 1 || err.fd() != 2) return 1;
    in.close();
    return in.fd() == -1 && ::fcntl(0, F_GETFD) == -1 ? 0 : 2;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(FileTest, ATemporaryFileWithABareNameLiesInTheTemporaryDirectory) {
  const TempDir folder;
  const auto child = inChild([&] {
    ::setenv("TMPDIR", folder.path().c_str(), 1);
    std::string name = "build";
    File file;
    file.open(File::TempType(), name);
    std::cout << name;
    return test::isCloseOnExec(file.fd()) && (statusFlags(file) & O_ACCMODE) == O_RDWR ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.err;
  EXPECT_THAT(child.out, StartsWith(folder / "build"));
  EXPECT_THAT(child.out, ::testing::Not(EndsWith("XXXXXX")));
  EXPECT_EQ(child.out.size(), (folder / "build").size() + 6);
  EXPECT_EQ(modeOf(child.out), 0600u);
}

TEST(FileTest, ATemporaryFileWithASlashInItsNameStaysWhereTheNameSays) {
  const TempDir folder;
  const auto child = inChild([&] {
    if (::chdir(folder.path().c_str()) != 0) return 1;
    std::string name = "./x";
    File().open(File::TempType(), name);
    std::cout << name;
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.err;
  EXPECT_THAT(child.out, StartsWith("./x"));
  EXPECT_EQ(child.out.size(), 9u);
  EXPECT_EQ(modeOf(folder / child.out), 0600u);
}

TEST(FileTest, AFailingTemporaryFileNamesItsTemplateAndLeavesTheCallersName) {
  std::string name = "/absent/dir/x";
  File file;
  file.open("/dev/null", File::READ);
  EXPECT_EQ(raisedBy([&] { file.open(File::TempType(), name); }),
            (Raised{"kes::FsError", ENOENT, "/absent/dir/xXXXXXX", site, "open"}));
  EXPECT_EQ(name, "/absent/dir/x");
  EXPECT_EQ(file.fd(), -1);
  for (const int errnum : {EACCES, EEXIST, EROFS, EMFILE}) {
    const Refuse failing(Call::mkostemp, errnum);
    EXPECT_EQ(raisedBy([&] { file.open(File::TempType(), name); }),
              (Raised{"kes::FsError", errnum, "/absent/dir/xXXXXXX", site, "open"}));
  }
}

TEST(FileTest, EachPipeEndIsTakenOnce) {
  const auto before = openDescriptors();
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  Pipe pipe{ends[0], ends[1]};
  {
    File reader, writer;
    reader.open(pipe, true);
    writer.open(pipe, false);
    EXPECT_EQ(reader.fd(), ends[0]);
    EXPECT_EQ(writer.fd(), ends[1]);
    EXPECT_EQ(pipe.readEnd, -1);
    EXPECT_EQ(pipe.writeEnd, -1);
    EXPECT_EQ(raisedBy([&] { reader.open(pipe, true); }),
              (Raised{"kes::UsageError", 0, "bad pipe end passed", site, "open"}));
    EXPECT_EQ(reader.fd(), -1) << "what was held is closed before the end is taken";
    EXPECT_EQ(raisedBy([&] { writer.open(pipe, false); }).text, "bad pipe end passed");
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST(FileTest, ANewPipeHoldsNoEnd) {
  const Pipe pipe;
  EXPECT_EQ(pipe.readEnd, -1);
  EXPECT_EQ(pipe.writeEnd, -1);
}

TEST(FileTest, AFailureToChangeTheOwnerNamesTheFileAsItWasOpened) {
  const TempDir folder;
  const auto raised = [](File& file) { return raisedBy([&] { file.setAccess(Access(1, 2, 0600)); }); };
  const auto expected = [](const std::string& path) {
    return Raised{"kes::FsError", EIO, path, "src/os/posix/fs/Access", "setOwnership"};
  };
  File file;
  std::string name = folder / "temporary";
  int both[2];
  ASSERT_EQ(::pipe2(both, O_CLOEXEC), 0);
  ::close(both[1]);
  Pipe ends{both[0], -1};
  const Refuse failing(Call::fchown, EIO);
  file.open((folder / "file").c_str(), File::WRITE, File::CREATE);
  EXPECT_EQ(raised(file), expected(folder / "file"));
  file.open(File::TempType(), name);
  EXPECT_EQ(raised(file), expected(name));
  file.open(ends, /*readEnd=*/true);
  EXPECT_EQ(raised(file), expected("")) << "a pipe has no path";
  const Refuse bits(Call::fchmod, EIO);
  EXPECT_EQ(raised(file), (Raised{"kes::OsError", EIO, "", "src/os/posix/fs/Ops", "setAccessPriv"}));
}

TEST(FileTest, TruncatingCutsAndExtends) {
  const TempDir folder;
  test::writeFile(folder / "file", "content");
  File file;
  file.open((folder / "file").c_str(), File::READ_WRITE);
  file.truncate(3);
  EXPECT_EQ(test::readFile(folder / "file"), "con");
  file.truncate(5);
  EXPECT_EQ(test::readFile(folder / "file"), std::string("con\0\0", 5));
  file.truncate(0);
  EXPECT_EQ(test::readFile(folder / "file"), "");
}

TEST(FileTest, AFailingTruncationIsAnOsError) {
  File file;
  EXPECT_EQ(raisedBy([&] { file.truncate(0); }), (Raised{"kes::OsError", EBADF, "", site, "truncate"}));
  const TempDir folder;
  file.open((folder / "file").c_str(), File::WRITE, File::CREATE);
  EXPECT_EQ(raisedBy([&] { file.truncate(static_cast<std::size_t>(-1)); }).errnum, EINVAL);
  const Refuse failing(Call::ftruncate, EFBIG);
  EXPECT_EQ(raisedBy([&] { file.truncate(1); }), (Raised{"kes::OsError", EFBIG, "", site, "truncate"}));
}

TEST(FileTest, RightsNeedAnOpenFile) {
  EXPECT_EQ(raisedBy([] { File().setAccess(Access(0600)); }),
            (Raised{"kes::UsageError", 0, "no file opened", site, "setAccess"}));
}

TEST(FileTest, RightsAreChangedThroughTheDescriptor) {
  const TempDir folder;
  File file;
  file.open((folder / "file").c_str(), File::WRITE, File::CREATE);
  file.setAccess(Access(0741));
  EXPECT_EQ(modeOf(folder / "file"), 0741u);
}

TEST(FileTest, TheSharedNullFilesLiveFromInitToExit) {
  const auto before = openDescriptors();
  File::exit();
  EXPECT_EQ(File::m_null_in, nullptr);
  File::init();
  ASSERT_NE(File::m_null_in, nullptr);
  ASSERT_NE(File::m_null_out, nullptr);
  EXPECT_EQ(statusFlags(*File::m_null_in) & O_ACCMODE, O_RDONLY);
  EXPECT_EQ(statusFlags(*File::m_null_out) & O_ACCMODE, O_WRONLY);
  File::init();
  File::exit();
  EXPECT_EQ(File::m_null_in, nullptr);
  EXPECT_EQ(File::m_null_out, nullptr);
  EXPECT_EQ(openDescriptors(), before);
}

TEST(FileTest, AnInitThatFailsHalfWayLeavesNothing) {
  const auto before = openDescriptors();
  {
    const Refuse failing(Call::open, EMFILE, {.skip = 1});
    EXPECT_EQ(raisedBy(File::init), (Raised{"kes::FsError", EMFILE, "/dev/null", site, "open"}));
  }
  EXPECT_EQ(File::m_null_in, nullptr);
  EXPECT_EQ(File::m_null_out, nullptr);
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace kes::fs
