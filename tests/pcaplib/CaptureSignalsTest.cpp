#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kespal/error/OsError.h"
#include "pcaplib/CaptureFixture.h"
#include "support/ForkedChild.h"
#include "support/PcapFile.h"
#include "support/Sanitizer.h"
#include "support/ScriptedClock.h"

namespace kes::test {
namespace {

TEST_F(CaptureTest, ACancelledThreadClosesItsFile) {
  if (isSanitized) GTEST_SKIP() << "the sanitizers do not follow the unwinding of a cancelled thread";
  ScriptedClock script(1, 0);
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  const int before = nextDescriptor();
  for (const int clockError : {0, EPERM}) {
    if (clockError != 0) script.fail(clockError);
    opensCancelled = true;
    pthread_t thread{};
    const auto work = [](void*) -> void* {
      try {
        dump("abc");
      } catch (const kes::OsError&) {
      }
      ::pthread_testcancel();
      return nullptr;
    };
    ASSERT_EQ(::pthread_create(&thread, nullptr, work, nullptr), 0);
    void* end = nullptr;
    ASSERT_EQ(::pthread_join(thread, &end), 0);
    opensCancelled = false;
    EXPECT_EQ(end, PTHREAD_CANCELED);
    EXPECT_EQ(nextDescriptor(), before);
  }
}

TEST_F(CaptureTest, AWriteCutShortByASizeLimitIsTakenBackAtOnceAndTheWriterGoesOn) {
  const auto child = inChild([this] {
    const rlimit limit{1000, 1000};
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0 || !DumpOpen(file_.c_str(), 0)) return 1;
    for (int i = 0; i < 100; ++i) {
      if (!dump(std::string(50, 'p'))) return 2;
      const PcapFile file = PcapFile::parse(readFile(file_));
      if (!file.hasHeader || file.torn != 0) return 3;
    }
    return writeSizes.size() == 101 ? 0 : 4;
  });
  EXPECT_EQ(child.exitCode(), 0) << "ended by signal " << child.signal();
  EXPECT_EQ(readFile(file_).size(), 24U + 14 * 66);
}

TEST_F(CaptureTest, AtTheSizeLimitItselfTheSignalFindsAWholeFile) {
  const auto child = inChild([this] {
    const rlimit limit{24 + 66, 24 + 66};
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0 || !DumpOpen(file_.c_str(), 0)) return 1;
    for (int i = 0; i < 2; ++i) dump(std::string(50, 'p'));
    return 2;
  });
  EXPECT_EQ(child.signal(), SIGXFSZ);
  EXPECT_EQ(readFile(file_).size(), 24U + 66);
}

// What a signal's handler found when it first ran.
volatile off_t sizeAtSignal = -1;
volatile int writesAtSignal = -1;

void lookAtTheFile(int) {
  if (writesAtSignal >= 0) return;
  struct stat status {};
  ::stat(cap_types[0].path, &status);
  sizeAtSignal = status.st_size;
  writesAtSignal = static_cast<int>(writeSizes.size());
}

TEST_F(CaptureTest, ASignalAtTheStartFindsAnEmptiedFileWithItsHeader) {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    writeFile(file_, "an older capture");
    const auto child = inChild([&] {
      signalAfterOpen = number;
      DumpOpen(file_.c_str(), 0);
      return 1;
    });
    EXPECT_EQ(child.signal(), number);
    EXPECT_EQ(readFile(file_).size(), 24U);
  }
}

TEST_F(CaptureTest, ASignalAtTheStartFindsANewFileWithItsHeader) {
  const auto child = inChild([this] {
    signalAfterOpen = SIGTERM;
    DumpOpen(file_.c_str(), 0);
    return 1;
  });
  EXPECT_EQ(child.signal(), SIGTERM);
  EXPECT_EQ(readFile(file_).size(), 24U);
}

TEST_F(CaptureTest, ASignalWhileWhatIsNoFileIsOpenedIsNotHeldBack) {
  for (const char* name : {"/dev/null", "fifo"}) {
    const auto child = inChild([&] {
      if (::chdir(dir_.path().c_str()) != 0 || (::mkfifo("fifo", 0600) != 0 && errno != EEXIST)) return 1;
      ::signal(SIGINT, lookAtTheFile);
      signalAfterOpen = SIGINT;
      if (!DumpOpen(name, 0)) return 2;
      return writesAtSignal == 0 && writeSizes.size() == 1 ? 0 : 3;
    });
    EXPECT_EQ(child.exitCode(), 0) << name;
  }
}

TEST_F(CaptureTest, WithNoRoomForAHeaderTheLimitsSignalFindsAnEmptyFile) {
  const auto child = inChild([this] {
    const rlimit none{0, 0};
    if (::setrlimit(RLIMIT_FSIZE, &none) != 0) return 1;
    DumpOpen(file_.c_str(), 0);
    return 2;
  });
  EXPECT_EQ(child.signal(), SIGXFSZ);
  EXPECT_EQ(readFile(file_), "");
}

TEST_F(CaptureTest, ASignalDuringAWriteWaitsUntilTheRecordIsTakenBack) {
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGXFSZ}) {
    const auto child = inChild([&] {
      ::signal(number, lookAtTheFile);
      const rlimit limit{60, 60};
      if (::setrlimit(RLIMIT_FSIZE, &limit) != 0 || !DumpOpen(file_.c_str(), 0)) return 1;
      signalAfterWrite = number;
      if (!dump(std::string(50, 'p'))) return 2;
      return sizeAtSignal == 24 ? 0 : 3;
    });
    EXPECT_EQ(child.exitCode(), 0) << number;
  }
}

TEST_F(CaptureTest, ASignalDuringAWriteToAFifoIsNotHeldBackForItsReaderMayBeSlow) {
  const auto child = inChild([this] {
    if (::mkfifo(file_.c_str(), 0600) != 0) return 1;
    ::signal(SIGINT, lookAtTheFile);
    const int reader = ::open(file_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (reader < 0 || !DumpOpen(file_.c_str(), 0)) return 2;
    signalAfterWrite = SIGINT;
    writesInTwo = true;
    dump("abc");
    return writesAtSignal == 2 && writeSizes.size() == 3 ? 0 : 3;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST_F(CaptureTest, TheMaskIsAsBeforeAfterAnOpenAndAfterAPacket) {
  sigset_t before, after;
  sigemptyset(&before);
  sigaddset(&before, SIGTERM);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  const auto expectAsBefore = [&] {
    ::pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_EQ(sigismember(&after, SIGTERM), 1);
    EXPECT_EQ(sigismember(&after, SIGINT), 0);
    EXPECT_EQ(sigismember(&after, SIGXFSZ), 0);
  };
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  expectAsBefore();
  ASSERT_TRUE(dump("abc"));
  expectAsBefore();
  ASSERT_FALSE(DumpOpen((dir_ / "no/such/folder").c_str(), 0));
  expectAsBefore();
  sigemptyset(&before);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(CaptureTest, AHeaderCutShortIsTakenBackAndWrittenWithTheNextPacket) {
  const auto child = inChild([this] {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit tight{10, 5000}, wide{5000, 5000};
    if (::setrlimit(RLIMIT_FSIZE, &tight) != 0) return 1;
    if (!DumpOpen(file_.c_str(), 0) || !readFile(file_).empty()) return 2;
    if (!dump("lost") || !readFile(file_).empty()) return 3;
    if (::setrlimit(RLIMIT_FSIZE, &wide) != 0) return 4;
    return dump("kept") ? 0 : 5;
  });
  ASSERT_EQ(child.exitCode(), 0);
  EXPECT_EQ(PcapFile::parse(readFile(file_)).packets(), std::vector<std::string>{"kept"});
}

}  // namespace
}  // namespace kes::test
