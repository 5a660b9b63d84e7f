#include "kespal/fs/SaveFile.h"

#include <dirent.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <optional>

#include "kespal/error/FsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/CancelledWithin.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/FileStatus.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

using test::asNobody;
using test::Call;
using test::inChild;
using test::modeOf;
using test::raisedBy;
using test::readFile;
using test::Refuse;
using test::TempDir;
using test::writeFile;
using testing::ElementsAre;

void save(const std::string& path, const std::string& text, const Access* access = nullptr) {
  SaveFile file(path.c_str(), access);
  file.write(text.data(), text.size());
  file.commit();
}

std::vector<std::string> namesIn(const std::string& path) {
  std::vector<std::string> names;
  DIR* const dir = ::opendir(path.c_str());
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  ::closedir(dir);
  return names;
}

struct SaveFileTest : testing::Test {
  TempDir dir;
  std::string path = dir / "settings";
};

TEST_F(SaveFileTest, ANewFileIsItsOwnersAlone) {
  save(path, "content");
  EXPECT_EQ(readFile(path), "content");
  EXPECT_EQ(modeOf(path), 0600U);
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("settings"));
}

TEST_F(SaveFileTest, TheOldContentIsThereUntilTheCommitAndTheNewOneAfterIt) {
  writeFile(path, "old");
  SaveFile file(path.c_str());
  file.write("new ", 4);
  file.write("content", 7);
  EXPECT_EQ(readFile(path), "old");
  file.commit();
  EXPECT_EQ(readFile(path), "new content");
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("settings"));
}

TEST_F(SaveFileTest, WhoHasTheOldFileOpenKeepsIt) {
  writeFile(path, "old");
  const ino_t before = test::statusOf(path).st_ino;
  save(path, "new");
  EXPECT_NE(test::statusOf(path).st_ino, before);
}

TEST_F(SaveFileTest, TheNewFileHasTheRightsOfTheOldOneEvenSetIdBits) {
  writeFile(path, "old");
  ::chmod(path.c_str(), 04751);
  save(path, "new");
  EXPECT_EQ(modeOf(path), 04751U);
}

TEST_F(SaveFileTest, RootKeepsTheOwnerAndTheGroup) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  writeFile(path, "old");
  ASSERT_EQ(::chown(path.c_str(), 1234, 5678), 0);
  ::chmod(path.c_str(), 02750);
  save(path, "new");
  EXPECT_EQ(test::statusOf(path).st_uid, 1234U);
  EXPECT_EQ(test::statusOf(path).st_gid, 5678U);
  EXPECT_EQ(modeOf(path), 02750U);
}

TEST_F(SaveFileTest, AnOwnerOrAGroupIsGivenAloneToo) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  const Access owner(1234, Access::Unchanged, 0640), group(Access::Unchanged, 5678, 0640);
  save(path, "new", &owner);
  EXPECT_EQ(test::statusOf(path).st_uid, 1234U);
  EXPECT_EQ(test::statusOf(path).st_gid, ::getegid());
  save(path, "new", &group);
  EXPECT_EQ(test::statusOf(path).st_uid, ::geteuid());
  EXPECT_EQ(test::statusOf(path).st_gid, 5678U);
}

TEST_F(SaveFileTest, WhoMayNotKeepTheOwnerIsToldAndTheFileStays) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root";
  writeFile(path, "old");
  ::chmod(dir.path().c_str(), 0777);
  ::chmod((dir.path() + "/..").c_str(), 0755);
  const auto result = asNobody([&] {
    const auto raised = raisedBy([&] { save(path, "new"); });
    if (raised.type != "kes::FileAccessError" || raised.errnum != EPERM || raised.text != path) return 1;
    const Access own(0640);
    save(path, "new", &own);  // who says what it shall have is not in the way
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 0) << result.out << result.err;
  EXPECT_EQ(readFile(path), "new");
  EXPECT_EQ(modeOf(path), 0640U);
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("settings"));
}

TEST_F(SaveFileTest, TheTemporaryFileIsTheOwnersAloneUntilTheCommit) {
  writeFile(path, "old");
  ::chmod(path.c_str(), 0666);
  const SaveFile file(path.c_str());
  struct stat status {};
  ::fstat(file.fd(), &status);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(SaveFileTest, ALinkStaysAndWhatItLeadsToIsReplaced) {
  ::mkdir((dir / "real").c_str(), 0700);
  writeFile(dir / "real/file", "old");
  ASSERT_EQ(::symlink("real/file", path.c_str()), 0);
  save(path, "new");
  EXPECT_TRUE(S_ISLNK(test::statusOf(path).st_mode));
  EXPECT_EQ(readFile(dir / "real/file"), "new");
  EXPECT_THAT(namesIn(dir / "real"), ElementsAre("file"));
}

TEST_F(SaveFileTest, WhatCannotBeReplacedIsRefusedByTypeAndNumber) {
  ::mkdir((dir / "folder").c_str(), 0700);
  ::mkfifo((dir / "fifo").c_str(), 0600);
  ASSERT_EQ(::symlink("nowhere", (dir / "dangling").c_str()), 0);
  const auto refusal = [&](const std::string& name) {
    const auto raised = raisedBy([&] { SaveFile(name.c_str()); });
    EXPECT_EQ(raised.text, name);
    return raised.type + ' ' + std::to_string(raised.errnum);
  };
  EXPECT_EQ(refusal(dir / "folder"), "kes::FsError " + std::to_string(EISDIR));
  EXPECT_EQ(refusal(dir / "folder/"), "kes::FsError " + std::to_string(EISDIR));
  EXPECT_EQ(refusal(dir / "fifo"), "kes::FsError " + std::to_string(EINVAL));
  EXPECT_EQ(refusal(dir / "dangling"), "kes::NoSuchFileError " + std::to_string(ENOENT));
  EXPECT_EQ(refusal(dir / "no/such"), "kes::NoSuchFileError " + std::to_string(ENOENT));
  EXPECT_EQ(refusal(dir / "fifo/name"), "kes::FsError " + std::to_string(ENOTDIR));
  EXPECT_EQ(refusal("/"), "kes::FsError " + std::to_string(EISDIR));
  EXPECT_EQ(refusal("."), "kes::FsError " + std::to_string(EISDIR));
  EXPECT_EQ(raisedBy([] { SaveFile(nullptr); }).errnum, EFAULT);
  EXPECT_EQ(namesIn(dir.path()).size(), 3U);
}

TEST_F(SaveFileTest, ANameAsLongAsNamesCanBeIsSaved) {
  std::string name(254, 'n');
  save(dir / name, "content");
  EXPECT_EQ(readFile(dir / name), "content");
  name = std::string(243, 'n') + "\xE2\x82\xAC\xE2\x82\xAC";  // the cut must not fall within a character
  SaveFile file((dir / name).c_str());
  for (const std::string& each : namesIn(dir.path())) {
    if (each[0] == '.') {
      EXPECT_EQ(each.substr(1, each.size() - 10), std::string(243, 'n'));
    }
  }
}

TEST_F(SaveFileTest, EveryRandomByteMakesALetterOrADigitOfTheTemporaryName) {
  unsigned char next = 0;
  const test::Instead<Call::getentropy> counting([&next](void* bytes, std::size_t size) {
    for (std::size_t at = 0; at < size; ++at) static_cast<unsigned char*>(bytes)[at] = next++;
    return 0;
  });
  do {
    const SaveFile file(path.c_str());
    EXPECT_THAT(namesIn(dir.path()), ElementsAre(testing::MatchesRegex("\\.settings\\.[a-z0-9]{8}")));
  } while (next != 0);
}

TEST_F(SaveFileTest, APathWithoutADirectoryIsInTheWorkingDirectory) {
  const auto result = inChild([&] {
    if (::chdir(dir.path().c_str()) != 0) return 1;
    SaveFile file("settings");
    if (::chdir("/") != 0) return 1;
    file.write("content", 7);
    file.commit();  // where it was begun
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 0) << result.err;
  EXPECT_EQ(readFile(path), "content");
}

TEST_F(SaveFileTest, WhatIsNotCommittedIsGivenUp) {
  writeFile(path, "old");
  { SaveFile(path.c_str()).write("new", 3); }
  SaveFile file(path.c_str());
  file.cancel();
  EXPECT_EQ(file.fd(), -1);
  EXPECT_EQ(raisedBy([&] { file.commit(); }).type, "kes::UsageError");
  EXPECT_EQ(raisedBy([&] { file.write("x", 1); }).type, "kes::UsageError");
  EXPECT_EQ(readFile(path), "old");
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("settings"));
}

TEST_F(SaveFileTest, EveryCallThatFailsLeavesTheOldFileAndNothingElse) {
  writeFile(path, "old");
  const auto before = test::openDescriptors();
  for (const Call call : {Call::openat, Call::open, Call::fstatat, Call::write, Call::fchown, Call::fchmod,
                          Call::fsync, Call::close, Call::renameat}) {
    const Refuse failing(call, EIO, test::once);
    const auto raised = raisedBy([&] { save(path, "new"); });
    EXPECT_EQ(raised.type, "kes::FsError") << test::infoOf(call).name;
    EXPECT_EQ(raised.errnum, EIO) << test::infoOf(call).name;
    EXPECT_EQ(raised.text, path) << test::infoOf(call).name;
    EXPECT_EQ(readFile(path), "old") << test::infoOf(call).name;
    EXPECT_THAT(namesIn(dir.path()), ElementsAre("settings")) << test::infoOf(call).name;
  }
  EXPECT_EQ(test::openDescriptors(), before);
}

TEST_F(SaveFileTest, WithoutRandomNumbersItIsAnErrorWithThePath) {
  const Refuse failing(Call::getentropy, ENOSYS);
  const auto raised = raisedBy([&] { save(path, "new"); });
  EXPECT_EQ(raised.type, "kes::FsError");
  EXPECT_EQ(raised.errnum, ENOSYS);
  EXPECT_EQ(raised.text, path);
}

TEST_F(SaveFileTest, WhereEveryTemporaryNameIsTakenTheSearchEnds) {
  const Refuse failing(Call::openat, EEXIST);
  const auto raised = raisedBy([&] { save(path, "new"); });
  EXPECT_EQ(raised.type, "kes::FsError");
  EXPECT_EQ(raised.errnum, EEXIST);
}

TEST_F(SaveFileTest, ALinkThatCannotBeLookedAtIsTheSystemsError) {
  writeFile(path, "old");
  const std::string link = dir / "link";
  ASSERT_EQ(::symlink("settings", link.c_str()), 0);
  const Refuse failing(Call::lstat, EIO);
  EXPECT_EQ(raisedBy([&] { save(link, "new"); }).errnum, EIO);
  EXPECT_EQ(readFile(path), "old");
}

TEST_F(SaveFileTest, ADirectoryThatDoesNotReachTheDeviceIsAnErrorOfAFileThatIsReplaced) {
  writeFile(path, "old");
  {
    const Refuse failing(Call::fsync, EIO, test::nth(2));
    EXPECT_EQ(raisedBy([&] { save(path, "new"); }).errnum, EIO);
  }
  EXPECT_EQ(readFile(path), "new");
  const Refuse failing(Call::fsync, EINVAL, test::nth(2));
  save(path, "newer");  // of the kind that cannot be brought there
  EXPECT_EQ(readFile(path), "newer");
}

TEST_F(SaveFileTest, FileThenNameThenDirectoryIsTheOrderOfItsCalls) {
  const test::CallTrace trace;
  save(path, "new");
  const auto calls = trace.calls();
  const auto at = [&](const char* call, std::size_t from = 0) {
    return std::find(calls.begin() + static_cast<std::ptrdiff_t>(from), calls.end(), call) - calls.begin();
  };
  EXPECT_LT(at("write"), at("fchmod"));
  EXPECT_LT(at("fchmod"), at("fsync"));
  EXPECT_LT(at("fsync"), at("renameat"));
  EXPECT_LT(at("renameat"), at("fsync", static_cast<std::size_t>(at("renameat"))));
  EXPECT_LT(at("fsync", static_cast<std::size_t>(at("renameat"))), static_cast<std::ptrdiff_t>(calls.size()));
}

TEST_F(SaveFileTest, InterruptedAndShortWritesAreContinued) {
  const test::Shorten shortWrites(Call::write, 3);
  const Refuse failing(Call::write, EINTR, {.skip = 1, .times = 2});
  save(path, "a longer content");
  EXPECT_EQ(readFile(path), "a longer content");
}

TEST_F(SaveFileTest, ADiskThatIsFullIsAnErrorAndTheOldFileStays) {
  writeFile(path, "old");
  const auto result = inChild([&] {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{4, 4};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    return raisedBy([&] { save(path, "much longer"); }).errnum == EFBIG ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(readFile(path), "old");
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("settings"));
}

TEST_F(SaveFileTest, WithoutMemoryNothingIsLeftBesideTheFile) {
  writeFile(path, "old");
  const std::size_t refused = test::starve([&] {
    SaveFile file(path.c_str());
    file.write("new", 3);
    file.commit();
  });
  EXPECT_GT(refused, 0U);
  EXPECT_EQ(readFile(path), "new");
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("settings"));
}

TEST_F(SaveFileTest, AForkedChildLeavesTheFileToItsParent) {
  writeFile(path, "old");
  std::optional<SaveFile> file;
  file.emplace(path.c_str());
  file->write("new", 3);
  const auto result = inChild([&] {
    const bool refused = raisedBy([&] { file->commit(); }).type == "kes::UsageError";
    file.reset();
    return refused ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
  file->commit();
  EXPECT_EQ(readFile(path), "new");
}

TEST_F(SaveFileTest, AThreadThatIsCancelledInTheMiddleLeavesNothing) {
  KES_SKIP_UNDER_SANITIZERS("loses its way in the stack of a cancelled thread");
  writeFile(path, "old");
  pthread_t thread;
  ASSERT_EQ(::pthread_create(
                &thread, nullptr,
                [](void* argument) -> void* {
                  SaveFile file(static_cast<const std::string*>(argument)->c_str());
                  ::pthread_cancel(::pthread_self());
                  file.write("new", 3);
                  file.commit();
                  return nullptr;
                },
                &path),
            0);
  void* result = nullptr;
  ::pthread_join(thread, &result);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  EXPECT_EQ(readFile(path), "old");
  EXPECT_THAT(namesIn(dir.path()), ElementsAre("settings"));
}

TEST_F(SaveFileTest, ACancellationWhileSomethingIsOpenedLeavesNothing) {
  KES_SKIP_UNDER_SANITIZERS("loses its way in the stack of a cancelled thread");
  const auto before = test::openDescriptors();
  for (const Call call : {Call::open, Call::openat}) {
    EXPECT_TRUE(test::cancelledWithin(call, 1, [this] { save(path, "content"); }));
    EXPECT_THAT(namesIn(dir.path()), testing::Each("settings"));
    EXPECT_EQ(test::openDescriptors(), before);
  }
}

}  // namespace
}  // namespace kes::fs
