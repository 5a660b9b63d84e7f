#include "kesos/files.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "kesos/Ipc.h"
#include "kesos/threads.h"
#include "support/ForkedChild.h"
#include "support/TempDir.h"

namespace {

using namespace kes::test;

std::string modeOf(const std::string& path) { return shell("stat -c %a '" + path + "'"); }

/// A path in `dir` whose text has that many bytes; its directories are there, it is not.
std::string pathOfLength(const TempDir& dir, std::size_t length) {
  std::string path = dir.path();
  while (path.size() + 202 < length) {
    path += '/' + std::string(100, 'd');
    std::filesystem::create_directories(path);
  }
  path += '/';
  return path + std::string(length - path.size(), 'f');
}

class FilesTest : public testing::Test {
 protected:
  TempDir dir_;
};

TEST_F(FilesTest, ExistenceAndTypeAreThoseOfTheFileSystem) {
  writeFile(dir_ / "file", "content");
  ASSERT_EQ(::symlink("nowhere", (dir_ / "dangling").c_str()), 0);
  ASSERT_EQ(::symlink(".", (dir_ / "link").c_str()), 0);
  EXPECT_EQ(KesOsFileExists((dir_ / "file").c_str()), 1);
  EXPECT_EQ(KesOsFileExists(dir_.path().c_str()), 1);
  EXPECT_EQ(KesOsFileExists((dir_ / "dangling").c_str()), 0);
  EXPECT_EQ(KesOsFileExists((dir_ / "missing").c_str()), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(KesOsIsDir(dir_.path().c_str()), 1);
  EXPECT_EQ(KesOsIsDir((dir_ / "link").c_str()), 1);
  EXPECT_EQ(KesOsIsDir((dir_ / "file").c_str()), 0);
  EXPECT_EQ(KesOsIsDir((dir_ / "missing").c_str()), 0);
}

TEST_F(FilesTest, NullAndEmptyNamesGiveZero) {
  unsigned int size = 7;
  time_t time = 7;
  EXPECT_EQ(KesOsFileExists(nullptr), 0);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(KesOsIsDir(nullptr), 0);
  EXPECT_EQ(KesOsChkAndCreateDir(nullptr), 0);
  EXPECT_EQ(KesOsGetFileSize(nullptr, &size), 0);
  EXPECT_EQ(size, 0U);
  EXPECT_EQ(KesOsGetFileTime(nullptr, &time, &time), 0);
  EXPECT_EQ(KesOsSetFileTime(nullptr, 5), 0);
  EXPECT_EQ(KesOsCopyFile(nullptr, "x", 0), 0);
  EXPECT_EQ(KesOsCopyFile("x", nullptr, 0), 0);
  EXPECT_EQ(KesOsDeleteFile(nullptr), 0);
  EXPECT_EQ(KesOsDeleteDir(nullptr), 0);
  EXPECT_EQ(KesOsRenameFile(nullptr, "x"), 0);
  EXPECT_EQ(KesOsRenameFile("x", nullptr), 0);
  EXPECT_EQ(KesOsDeleteDirTree(nullptr), 0);
  for (const auto& call : {KesOsFileExists, KesOsIsDir, KesOsChkAndCreateDir, KesOsDeleteFile, KesOsDeleteDir,
                           KesOsDeleteDirTree}) {
    EXPECT_EQ(call(""), 0);
  }
  EXPECT_EQ(KesOsCopyFile("", "", 0), 0);
  EXPECT_EQ(KesOsGetFileSize("", nullptr), 0);
}

TEST_F(FilesTest, SizesOverFourGigabytesAreCutTo32Bits) {
  const std::string file = dir_ / "file";
  writeFile(file, "content");
  unsigned int size = 0;
  EXPECT_EQ(KesOsGetFileSize(file.c_str(), &size), 1);
  EXPECT_EQ(size, 7U);
  std::filesystem::resize_file(file, (std::uintmax_t{4} << 30U) + 123);
  EXPECT_EQ(KesOsGetFileSize(file.c_str(), &size), 1);
  EXPECT_EQ(size, 123U);
  EXPECT_EQ(KesOsGetFileSize((dir_ / "missing").c_str(), &size), 0);
  EXPECT_EQ(size, 0U);
}

TEST_F(FilesTest, TimesAreReadAndSet) {
  const std::string file = dir_ / "file";
  writeFile(file, "");
  shell("touch -a -d @1000000001.7 " + file + "; touch -m -d @1000000002.7 " + file);
  time_t accessed = 0, modified = 0;
  EXPECT_EQ(KesOsGetFileTime(file.c_str(), &accessed, &modified), 1);
  EXPECT_EQ(accessed, 1000000001);
  EXPECT_EQ(modified, 1000000002);
  EXPECT_EQ(KesOsGetFileTime(file.c_str(), nullptr, nullptr), 1);
  EXPECT_EQ(KesOsSetFileTime(file.c_str(), 1234567890), 1);
  EXPECT_EQ(shell("stat -c '%X %Y' " + file), "1234567890 1234567890");
  EXPECT_EQ(KesOsSetFileTime((dir_ / "missing").c_str(), 5), 0);
  EXPECT_EQ(KesOsGetFileTime((dir_ / "missing").c_str(), &accessed, &modified), 0);
}

TEST_F(FilesTest, FilesAndDirectoriesAreDeletedAndRenamed) {
  writeFile(dir_ / "file", "content");
  EXPECT_EQ(KesOsRenameFile((dir_ / "file").c_str(), (dir_ / "other").c_str()), 1);
  EXPECT_EQ(KesOsRenameFile((dir_ / "file").c_str(), (dir_ / "other").c_str()), 0);
  EXPECT_EQ(KesOsDeleteDir((dir_ / "other").c_str()), 0);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(KesOsDeleteFile((dir_ / "other").c_str()), 1);
  EXPECT_EQ(KesOsDeleteFile((dir_ / "other").c_str()), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(::mkdir((dir_ / "dir").c_str(), 0700), 0);
  EXPECT_EQ(KesOsDeleteFile((dir_ / "dir").c_str()), 0);
  EXPECT_EQ(KesOsDeleteDir((dir_ / "dir").c_str()), 1);
}

TEST_F(FilesTest, AllDirectoriesOfAPathAreCreated) {
  EXPECT_EQ(KesOsChkAndCreateDir((dir_ / "a/b/c").c_str()), 1);
  EXPECT_EQ(KesOsIsDir((dir_ / "a/b/c").c_str()), 1);
  EXPECT_EQ(modeOf(dir_ / "a") + modeOf(dir_ / "a/b") + modeOf(dir_ / "a/b/c"), "700700700");
  EXPECT_EQ(KesOsChkAndCreateDir((dir_ / "a/b/c").c_str()), 1) << "it is there";
  EXPECT_EQ(KesOsChkAndCreateDir((dir_ / "a/d//e/").c_str()), 1);
  EXPECT_EQ(shell("cd " + dir_.path() + " && find . -mindepth 1 | sort | tr '\\n' ' '"),
            "./a ./a/b ./a/b/c ./a/d ./a/d/e ");
}

TEST_F(FilesTest, ARelativePathAndABackslashAreTakenApart) {
  const ChildResult result = inChild([this] {
    if (::chdir(dir_.path().c_str()) != 0) return 1;
    if (KesOsChkAndCreateDir("x/y") != 1 || KesOsIsDir("x/y") != 1) return 2;
    if (KesOsChkAndCreateDir("p\\q") != 1) return 3;
    return KesOsIsDir("p") == 1 && KesOsIsDir("p\\q") == 1 && KesOsIsDir("p\\") == 0 ? 0 : 4;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST_F(FilesTest, TheLastCharacterOfAPathBelongsToItsLastDirectory) {
  const ChildResult result = inChild([this] {
    if (::chdir(dir_.path().c_str()) != 0) return 1;
    if (KesOsChkAndCreateDir("b\\") != 1 || KesOsChkAndCreateDir("\\") != 1) return 2;
    if (KesOsChkAndCreateDir("c/") != 1 || KesOsChkAndCreateDir("d\\e\\") != 1) return 3;
    return KesOsChkAndCreateDir("b\\") == 1 ? 0 : 4;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(shell("cd " + dir_.path() + " && LC_ALL=C ls | tr '\\n' ' '"), "\\ b b\\ c d d\\e d\\e\\ ");
}

TEST_F(FilesTest, ProcessesThatCreateOnePathAtOnceAllSucceed) {
  const Shared<std::atomic<int>> arrived;
  const int processes = 4, rounds = 100;
  const auto create = [&](int /*index*/) {
    for (int round = 1; round <= rounds; ++round) {
      ++*arrived;
      while (*arrived < round * processes) ::sched_yield();
      const std::string path = dir_ / std::to_string(round) + "/a/b/c";
      if (KesOsChkAndCreateDir(path.c_str()) != 1) {
        *arrived += rounds * processes;  // lets the others go
        return 1;
      }
    }
    return 0;
  };
  EXPECT_THAT(runProcesses(processes, create), testing::Each(0));
}

TEST_F(FilesTest, ADirectoryThatCannotBeCreatedEndsTheWalk) {
  writeFile(dir_ / "file", "");
  EXPECT_EQ(KesOsChkAndCreateDir((dir_ / "file").c_str()), 1) << "there is something of that name";
  EXPECT_EQ(KesOsChkAndCreateDir((dir_ / "file/below/it").c_str()), 0);
  EXPECT_EQ(errno, ENOTDIR);
  // A directory that its owner may not write to, either.
  ASSERT_EQ(::chmod(dir_.path().c_str(), 0555), 0);
  const ChildResult result = asNobody(
      [this] { return KesOsChkAndCreateDir((dir_ / "mine/below").c_str()) == 0 && errno == EACCES ? 0 : 1; });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(KesOsFileExists((dir_ / "mine").c_str()), 0);
}

TEST_F(FilesTest, APathThatDoesNotFitCreatesNothing) {
  const std::string path = dir_ / "new/" + std::string(200, 'a') + '/' + std::string(1024, 'x');
  EXPECT_EQ(KesOsChkAndCreateDir(path.c_str()), 0);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(KesOsFileExists((dir_ / "new").c_str()), 0);
}

TEST_F(FilesTest, ACopyHasContentModeOwnerAndTimesAsCpPreservesThem) {
  const std::string from = dir_ / "from", to = dir_ / "to", other = dir_ / "other";
  std::string content(300000, '\0');
  for (std::size_t index = 0; index < content.size(); ++index)
    content[index] = static_cast<char>(index * 7 / 5);
  writeFile(from, content);
  shell("chmod 640 " + from + "; touch -d @1300000000 " + from);
  if (::geteuid() == 0) shell("chown 65534:65534 " + from);
  ::umask(022);
  EXPECT_EQ(KesOsCopyFile(from.c_str(), to.c_str(), 0), 1);
  shell("cp -p " + from + " " + other);
  EXPECT_EQ(readFile(to), content);
  const std::string facts = "stat -c '%a %u %g %s %Y' ";
  EXPECT_EQ(shell(facts + to), shell(facts + other));
}

TEST_F(FilesTest, SetIdBitsSurviveTheChangeOfOwner) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root changes owners";
  const std::string from = dir_ / "from", to = dir_ / "to";
  writeFile(from, "x");
  shell("chown 65534:65534 " + from + "; chmod 6755 " + from);
  ::umask(022);
  EXPECT_EQ(KesOsCopyFile(from.c_str(), to.c_str(), 0), 1);
  EXPECT_EQ(shell("stat -c '%a %u' " + to), "6755 65534");
}

TEST_F(FilesTest, ACopyReplacesContentAndKeepsTheModeOfAnExistingFile) {
  const std::string from = dir_ / "from", to = dir_ / "to";
  writeFile(from, "new");
  writeFile(to, "old and longer");
  shell("chmod 755 " + from + "; chmod 600 " + to);
  EXPECT_EQ(KesOsCopyFile(from.c_str(), to.c_str(), 1), 0);
  EXPECT_EQ(readFile(to), "old and longer");
  EXPECT_EQ(KesOsCopyFile(from.c_str(), to.c_str(), 0), 1);
  EXPECT_EQ(readFile(to), "new");
  EXPECT_EQ(modeOf(to), "600");
}

TEST_F(FilesTest, ACopyOfAForeignFileKeepsItsContentAndFails) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to have two users";
  const std::string from = dir_ / "from", to = dir_ / "to";
  writeFile(from, "content");
  shell("chmod 4755 " + from + "; touch -d @1300000000 " + from + "; chmod 777 " + dir_.path());
  const ChildResult result = asNobody([&] {
    ::umask(022);
    return KesOsCopyFile(from.c_str(), to.c_str(), 0) == 0 && errno == EPERM ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(readFile(to), "content");
  EXPECT_EQ(shell("stat -c '%U %a' " + to), "nobody 755") << "not with the rights of the copier";
  EXPECT_NE(shell("stat -c %Y " + to), "1300000000");
}

TEST_F(FilesTest, ACopyOntoItselfEmptiesTheFile) {
  writeFile(dir_ / "file", "content");
  EXPECT_EQ(KesOsCopyFile((dir_ / "file").c_str(), (dir_ / "file").c_str(), 0), 1);
  EXPECT_EQ(readFile(dir_ / "file"), "");
}

TEST_F(FilesTest, CopiesThatCannotBeMadeFailWithTheReason) {
  writeFile(dir_ / "file", "content");
  EXPECT_EQ(KesOsCopyFile((dir_ / "missing").c_str(), (dir_ / "to").c_str(), 0), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(KesOsFileExists((dir_ / "to").c_str()), 0);
  EXPECT_EQ(KesOsCopyFile((dir_ / "file").c_str(), dir_.path().c_str(), 0), 0);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(KesOsCopyFile(dir_.path().c_str(), (dir_ / "to").c_str(), 0), 0);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(KesOsCopyFile((dir_ / "file").c_str(), "/dev/full", 0), 0);
  EXPECT_EQ(errno, ENOSPC);
}

TEST_F(FilesTest, ACopyLeavesNoDescriptorBehindAndNeedsTwo) {
  writeFile(dir_ / "file", "content");
  const ChildResult result = inChild([this] {
    const int next = ::dup(1);
    ::close(next);
    const std::string from = dir_ / "file", to = dir_ / "to";
    for (int round = 0; round < 3; ++round) {
      if (KesOsCopyFile(from.c_str(), to.c_str(), 0) != 1) return 1;
      if (KesOsCopyFile(from.c_str(), dir_.path().c_str(), 0) != 0) return 2;
    }
    if (::dup(1) != next) return 3;
    const DescriptorLimit limit(next + 2);
    return KesOsCopyFile(from.c_str(), to.c_str(), 0) == 0 && errno == EMFILE ? 0 : 4;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST_F(FilesTest, ACopyOfAFileInProcEndsAtItsEnd) {
  EXPECT_EQ(KesOsCopyFile("/proc/version", (dir_ / "to").c_str(), 0), ::geteuid() == 0 ? 1 : 0);
  EXPECT_EQ(readFile(dir_ / "to"), readFile("/proc/version"));
}

std::string tree(const TempDir& dir) {
  return shell("cd " + dir.path() + " && find . -mindepth 1 | LC_ALL=C sort | tr '\\n' ' '");
}

TEST_F(FilesTest, ATreeIsDeletedWithEverythingBelowIt) {
  shell("cd " + dir_.path() +
        " && mkdir -p t/a/b/c t/.hidden 't/with space' && touch t/f t/.g t/a/b/c/h t/.hidden/i"
        " && mkfifo t/a/pipe && ln -s ../f t/a/link && ln -s a/b/c/h t/link &&"
        " ln -s ../../with\\ space/x t/a/b/cross && touch 't/with space/x' && mkdir beside");
  EXPECT_EQ(KesOsDeleteDirTree((dir_ / "t").c_str()), 1);
  EXPECT_EQ(tree(dir_), "./beside ");
  EXPECT_EQ(KesOsDeleteDirTree((dir_ / "t").c_str()), 0);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(FilesTest, AFileIsNoTree) {
  writeFile(dir_ / "file", "");
  EXPECT_EQ(KesOsDeleteDirTree((dir_ / "file").c_str()), 0);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(tree(dir_), "./file ");
}

TEST_F(FilesTest, BehindALinkTheContentIsDeletedAndTheLinkStays) {
  shell("cd " + dir_.path() + " && mkdir -p t foreign/sub && touch foreign/f t/g && ln -s ../foreign t/link");
  EXPECT_EQ(KesOsDeleteDirTree((dir_ / "t").c_str()), 0);
  EXPECT_EQ(errno, ENOTEMPTY);
  EXPECT_EQ(tree(dir_), "./foreign ./t ./t/link ");
}

TEST_F(FilesTest, ALinkToNothingStopsTheDeletionInItsDirectory) {
  shell("cd " + dir_.path() + " && mkdir -p t/sub && touch t/sub/f && ln -s nowhere t/link");
  EXPECT_EQ(KesOsDeleteDirTree((dir_ / "t").c_str()), 0);
  EXPECT_EQ(errno, ENOTEMPTY);
  EXPECT_EQ(::unlink((dir_ / "t/link").c_str()), 0) << "it is still there";
  EXPECT_EQ(KesOsDeleteDirTree((dir_ / "t").c_str()), 1);
}

TEST_F(FilesTest, LinksThatLeadInCirclesEnd) {
  shell("cd " + dir_.path() +
        " && mkdir -p t/sub && touch t/f t/sub/g &&"
        " ln -s . t/self && ln -s . t/again && ln -s .. t/sub/up");
  EXPECT_EQ(KesOsDeleteDirTree((dir_ / "t").c_str()), 0);
  EXPECT_EQ(tree(dir_), "./t ./t/again ./t/self ./t/sub ./t/sub/up ");
}

TEST_F(FilesTest, ALinkGoesAlthoughItsFileWentBefore) {
  shell("cd " + dir_.path() +
        " && mkdir -p t/a t/b && touch t/a/f t/b/f && ln -s ../b/f t/a/l && ln -s ../a/f t/b/l &&"
        " ln -s a/l t/l && ln -s ../l t/a/m && ln -s ../l t/b/m");
  EXPECT_EQ(KesOsDeleteDirTree((dir_ / "t").c_str()), 1);
}

TEST_F(FilesTest, ALinkToADirectoryStaysAlthoughTheDirectoryWentBefore) {
  shell("cd " + dir_.path() +
        " && mkdir -p t/a t/b t/c && touch t/a/f t/b/f t/c/f t/z &&"
        " ln -s ../b t/a/l && ln -s ../c t/b/l && ln -s ../a t/c/l");
  EXPECT_EQ(KesOsDeleteDirTree((dir_ / "t").c_str()), 0);
  EXPECT_EQ(errno, ENOTEMPTY);
  EXPECT_EQ(tree(dir_), "./t ./t/a ./t/a/l ./t/b ./t/b/l ./t/c ./t/c/l ");
}

/// Deletes the tree in a thread with a quarter of the stack that a flat thread has by default, or the least
/// that there is.
int deleteOnASmallStack(const std::string& top) {
  struct Task {
    const std::string& top;
    KesOsEvent* done;
    int result;
  } task{top, nullptr, 7};
  const auto work = [](void* arg) -> void* {
    auto& own = *static_cast<Task*>(arg);
    own.result = KesOsDeleteDirTree(own.top.c_str());
    KesOsEventSet(own.done);
    return nullptr;
  };
  pthread_t thread{};
  const unsigned int small = std::max(65536U, static_cast<unsigned int>(::sysconf(_SC_THREAD_STACK_MIN)));
  if (KesOsEventCreate(&task.done, 0) != 1 || KesOsThreadBegin(&thread, work, small, &task) != 1) return 8;
  KesOsEventWait(task.done, infinite, nullptr);
  return KesOsEventClose(task.done) == 1 ? task.result : 9;
}

TEST_F(FilesTest, TheDeepestTreeThatFitsNeedsASmallStackAndOneDescriptor) {
  const ChildResult result = inChild([this] {
    std::string path = dir_ / "t";
    while (path.size() + 2 < 1020) path += "/d";  // and in the last one the search for "*.*"
    std::filesystem::create_directories(path);
    const int next = ::dup(1);
    ::close(next);
    const DescriptorLimit limit(next + 1);
    return deleteOnASmallStack(dir_ / "t");
  });
  EXPECT_EQ(result.exitCode(), 1);
  EXPECT_FALSE(std::filesystem::exists(dir_ / "t"));
}

TEST_F(FilesTest, AWideTreeNeedsOneDescriptor) {
  for (int index = 0; index < 100; ++index) {
    const std::string top = dir_ / "t/" + std::to_string(index);
    std::filesystem::create_directories(top + "/a/b");
    writeFile(top + "/a/b/f", "");
    writeFile(top + "/g", "");
  }
  const ChildResult result = inChild([this] {
    const int next = ::dup(1);
    ::close(next);
    const DescriptorLimit limit(next + 1);
    return KesOsDeleteDirTree((dir_ / "t").c_str());
  });
  EXPECT_EQ(result.exitCode(), 1);
  EXPECT_FALSE(std::filesystem::exists(dir_ / "t"));
}

TEST_F(FilesTest, ATreeWithANameThatDoesNotFitIsLeftAlone) {
  const std::string longest = pathOfLength(dir_, 1023), longer = pathOfLength(dir_, 1030);
  writeFile(longest, "");
  const std::string top = longest.substr(0, longest.find('/', dir_.path().size() + 1));
  EXPECT_EQ(longest.substr(0, 900), longer.substr(0, 900)) << "in the same directories";
  shell("cd " + longest.substr(0, longest.rfind('/')) + " && touch " + longer.substr(longer.rfind('/') + 1));
  EXPECT_EQ(KesOsDeleteDirTree(top.c_str()), 0);
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(shell("cd " + longer.substr(0, longer.rfind('/')) + " && ls | wc -l"), "2");
}

TEST_F(FilesTest, AsAnotherUserATreeThatIsNotOursStays) {
  shell("cd " + dir_.path() + " && mkdir -p t/sub && touch t/f t/sub/g");
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to have two users";
  const ChildResult result = asNobody([this] { return KesOsDeleteDirTree((dir_ / "t").c_str()); });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(tree(dir_), "./t ./t/f ./t/sub ./t/sub/g ");
}

TEST_F(FilesTest, ATreeOfManyEntriesIsDeletedWhole) {
  shell("cd " + dir_.path() + " && mkdir t && cd t && seq 3000 | xargs touch");
  EXPECT_EQ(KesOsDeleteDirTree((dir_ / "t").c_str()), 1);
}

TEST_F(FilesTest, ThereIsNoDiskDescriptor) { EXPECT_EQ(KesOsGetDiskDescriptor(), 0); }

}  // namespace
