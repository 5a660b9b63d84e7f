#include <fcntl.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>

#include "kespal/error/FsError.h"
#include "kespal/fs/Dir.h"
#include "kespal/fs/Ops.h"
#include "kespal/fs/Path.h"
#include "kespal/fs/StandardPaths.h"
#include "kespal/proc/Info.h"
#include "kespal/time/Clock.h"
#include "pcaplib/capture.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"
#include "support/PcapFile.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"
#include "sys/AtEnd.h"

// What failures between two steps did to files, each by its name.

namespace kes::fs {
namespace {

using test::Call;
using test::inChild;
using test::Interlude;
using test::openDescriptors;
using test::Raised;
using test::raisedBy;
using test::readFile;
using test::Refuse;
using test::TempDir;
using test::writeFile;

namespace stdfs = std::filesystem;

/// A tree of so many levels below its top, with one more file at the bottom.
std::string plant(const TempDir& folder, int levels) {
  std::string path = folder / "tree";
  for (int level = 0; level < levels; ++level) path += "/d";
  stdfs::create_directories(path);
  writeFile(path + "/file", "");
  return folder / "tree";
}

TEST(FoundInFilesTest, ADirectoryOfAWalkWhoseStatusCannotBeReadStaysOpen) {
  const TempDir folder;
  const std::string tree = plant(folder, 20);
  const Refuse refused(Call::fstat, EIO);
  EXPECT_EQ(raisedBy([&] { Ops::removeTree(tree.c_str()); }), Raised{});
  EXPECT_GT(refused.struck(), 0);
  EXPECT_FALSE(stdfs::exists(tree));
}

TEST(FoundInFilesTest, ADirectoryOfAWalkWhoseStatusCannotBeReadAgainIsNotCalledAnother) {
  const TempDir folder;
  const std::string tree = plant(folder, 20);
  const auto before = openDescriptors();
  // On the way down the walk closes all but eight of its directories.
  const Refuse refused(Call::fstat, EIO, {13, -1});
  EXPECT_EQ(raisedBy([&] { Ops::removeTree(tree.c_str()); }),
            (Raised{"kes::FsError", EIO, tree + "/d/d/d/d/d/d/d/d/d/d/d/d", "src/os/posix/fs/OpsTree",
                    "removeTree"}));
  EXPECT_EQ(openDescriptors(), before);
}

TEST(FoundInFilesTest, TheBacktraceOfAFailedOpenBeginsInTheWalk) {
  Exception::m_gen_backtraces = true;
  const sys::AtEnd off([] { Exception::m_gen_backtraces = false; });
  const TempDir folder;
  try {
    Ops::removeTree((folder / "none").c_str());
    ADD_FAILURE() << "removed";
  } catch (const NoSuchFileError& error) {
    // The walk's own functions have no names in a backtrace.
    for (auto frame = error.backtrace().rbegin(); frame->find("removeTree") == frame->npos; ++frame) {
      EXPECT_EQ(frame->find("kes::"), frame->npos) << *frame;
    }
  }
}

TEST(FoundInFilesTest, ALinkIsResolvedOrLeftAsItIsWithoutMemory) {
  const TempDir folder;
  const std::string link = folder / "a-link-with-a-name-that-needs-memory";
  stdfs::create_symlink(std::string(200, 't'), link);
  std::size_t before = 0;
  for (bool resolved = false; !resolved; ++before) {
    Path path(link);
    try {
      const test::NoMemory starving(before);
      path.assignResolved();
      resolved = true;
    } catch (const std::bad_alloc&) {
      EXPECT_EQ(path, link) << before;
    }
  }
  EXPECT_GT(before, 2U);
}

TEST(FoundInFilesTest, AConfigurationIsReadThoughSignalsInterrupt) {
  const TempDir folder;
  writeFile(folder / "user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"/srv/papers\"\n");
  const auto child = inChild([&] {
    ::setenv("XDG_CONFIG_HOME", folder.path().c_str(), 1);
    const Refuse open(Call::open, EINTR, test::once), read(Call::read, EINTR, test::once);
    std::cout << StandardPaths::documentsDir();
    return open.struck() + read.struck();
  });
  EXPECT_EQ(child.out, "/srv/papers");
  EXPECT_EQ(child.exitCode(), 2);
}

TEST(FoundInFilesTest, AUserDatabaseThatIsNeverContentWithItsRoomIsGivenUp) {
  const auto child = inChild([] {
    ::unsetenv("HOME");
    const Refuse refused(Call::getpwuid_r, ERANGE);
    std::cout << StandardPaths::userDataDir();
    return refused.struck() < 20 ? 0 : 1;
  });
  EXPECT_EQ(child.out, "/.local/share");
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(FoundInFilesTest, AUserDatabaseThatASignalInterruptsIsAskedAgain) {
  const auto child = inChild([] {
    ::unsetenv("HOME");
    const std::string before = StandardPaths::userDataDir();
    const Refuse refused(Call::getpwuid_r, EINTR, test::once);
    return StandardPaths::userDataDir() == before && refused.struck() == 1 ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

/// Does something in a thread that is cancelled right before, or right after, its next call of a kind; or as
/// soon as it comes to a chance within the call.
void inCancelledThread(Interlude::Moment moment, Call call, std::function<void()> work, bool within = false) {
  const Interlude cancelling(moment, call, [within] {
    ::pthread_cancel(::pthread_self());
    if (!within) ::pthread_testcancel();
  });
  pthread_t thread{};
  const auto run = [](void* argument) -> void* {
    (*static_cast<std::function<void()>*>(argument))();
    ::pthread_testcancel();
    return nullptr;
  };
  ASSERT_EQ(::pthread_create(&thread, nullptr, run, &work), 0);
  void* end = nullptr;
  ASSERT_EQ(::pthread_join(thread, &end), 0);
  EXPECT_EQ(end, PTHREAD_CANCELED);
}

TEST(FoundInFilesTest, ACancelledThreadDoesNotLeaveTheDirectoryOpenThatItCloses) {
  KES_SKIP_UNDER_SANITIZERS("does not follow the unwinding of a cancelled thread");
  const auto before = openDescriptors();
  inCancelledThread(Interlude::Before, Call::closedir, [] {
    Dir dir("/");
    dir.close();
  });
  EXPECT_EQ(openDescriptors(), before);
}

TEST(FoundInFilesTest, ACancelledThreadDoesNotLeaveTheUserDatabaseOpenThatItAsks) {
  KES_SKIP_UNDER_SANITIZERS("does not follow the unwinding of a cancelled thread");
  ::unsetenv("HOME");
  const std::string known = StandardPaths::userDataDir();  // the C library has what it keeps
  const auto before = openDescriptors();
  const auto ask = [] { StandardPaths::userDataDir(); };
  inCancelledThread(Interlude::Before, Call::getpwuid_r, ask, /*within=*/true);
  EXPECT_EQ(openDescriptors(), before);
}

TEST(FoundInFilesTest, ACancelledThreadDoesNotLeaveTheNameOfAProcessOpenThatItReads) {
  KES_SKIP_UNDER_SANITIZERS("does not follow the unwinding of a cancelled thread");
  const auto before = openDescriptors();
  inCancelledThread(Interlude::After, Call::open, [] { proc::Info::running("everyfailure_te"); });
  EXPECT_EQ(openDescriptors(), before);
}

TEST(FoundInFilesTest, ACancellationAtTheStartOfACaptureFindsItsHeader) {
  KES_SKIP_UNDER_SANITIZERS("does not follow the unwinding of a cancelled thread");
  const TempDir folder;
  const std::string path = folder / "capture";
  writeFile(path, "an older capture");
  inCancelledThread(Interlude::After, Call::open, [&] { DumpOpen(path.c_str(), 0); });
  EXPECT_EQ(readFile(path).size(), 24U);
}

TEST(FoundInFilesTest, ACancellationDuringAShortWriteFindsTheRecordTakenBack) {
  KES_SKIP_UNDER_SANITIZERS("does not follow the unwinding of a cancelled thread");
  const TempDir folder;
  const std::string path = folder / "capture";
  time::ClockBase::init();
  ASSERT_TRUE(DumpOpen(path.c_str(), 0));
  const test::Shorten half(Call::writev, test::Shorten::half, test::once);
  inCancelledThread(Interlude::After, Call::writev, [] { DumpPacket(nullptr, 0, 0); });
  EXPECT_EQ(readFile(path).size(), 24U);
}

TEST(FoundInFilesTest, ASignalWhileAPacketMakesARemovedFileAnewFindsTheHeader) {
  const TempDir folder;
  const std::string path = folder / "capture";
  const auto child = inChild([&] {
    time::ClockBase::init();
    if (!DumpOpen(path.c_str(), 0) || ::unlink(path.c_str()) != 0) return 1;
    // The first one finds nothing, the second one makes it.
    const Interlude ending(
        Interlude::After, Call::open, [] { ::raise(SIGTERM); }, 2);
    DumpPacket(nullptr, 0, 0);
    return 2;
  });
  EXPECT_EQ(child.signal(), SIGTERM);
  EXPECT_EQ(readFile(path).size(), 24U);
}

TEST(FoundInFilesTest, AFileMadeAnewHasItsHeaderThoughTheClockFails) {
  const TempDir folder;
  const std::string path = folder / "capture";
  time::ClockBase::init();
  ASSERT_TRUE(DumpOpen(path.c_str(), 0));
  ASSERT_EQ(::unlink(path.c_str()), 0);
  const Refuse refused(Call::clock_gettime, EPERM);
  EXPECT_THROW(DumpPacket(nullptr, 0, 0), OsError);
  EXPECT_EQ(readFile(path).size(), 24U);
}

TEST(FoundInFilesTest, SignalsThatCannotBeHeldBackAreNotSetToAnythingElse) {
  const TempDir folder;
  time::ClockBase::init();
  ASSERT_TRUE(DumpOpen((folder / "capture").c_str(), 0));
  const int before = test::made(Call::pthread_sigmask);
  const Refuse refused(Call::pthread_sigmask, EINVAL, test::once);
  EXPECT_TRUE(DumpPacket(nullptr, 0, 0));
  EXPECT_EQ(refused.struck(), 1);
  EXPECT_EQ(test::made(Call::pthread_sigmask) - before, 1) << "nothing was held, and nothing is set back";
}

TEST(FoundInFilesTest, APacketIsNotWrittenWhereTheFilesStateIsUnknown) {
  const TempDir folder;
  const std::string path = folder / "capture";
  time::ClockBase::init();
  ASSERT_TRUE(DumpOpen(path.c_str(), 0));
  writeFile(path, "");
  {
    const Refuse refused(Call::fstat, EIO, test::once);
    EXPECT_FALSE(DumpPacket(nullptr, 0, 0));
  }
  EXPECT_EQ(readFile(path), "");
  EXPECT_TRUE(DumpPacket(nullptr, 0, 0));
  EXPECT_TRUE(test::PcapFile::parse(readFile(path)).hasHeader);
}

TEST(FoundInFilesTest, ARecordIsTakenBackThoughASignalInterruptsThat) {
  const TempDir folder;
  const std::string path = folder / "capture";
  time::ClockBase::init();
  ASSERT_TRUE(DumpOpen(path.c_str(), 0));
  const test::Shorten half(Call::writev, test::Shorten::half, test::once);
  const Refuse refused(Call::ftruncate, EINTR, test::once);
  EXPECT_TRUE(DumpPacket(nullptr, 0, 0));
  EXPECT_EQ(refused.struck(), 1);
  EXPECT_EQ(readFile(path).size(), 24U);
}

}  // namespace
}  // namespace kes::fs
