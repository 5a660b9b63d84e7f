#include "pcaplib/capture.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <limits>
#include <numeric>
#include <type_traits>
#include <utility>

#include "kespal/error/OsError.h"
#include "kespal/time/Clock.h"
#include "support/ForkedChild.h"
#include "support/PcapFile.h"
#include "support/Sanitizer.h"
#include "support/ScriptedClock.h"
#include "support/TempDir.h"

// Every file that the writer opens, and every write, comes through here (linker option --wrap).
namespace {
int lastOpenFlags = 0;
bool opensCancelled = false;  // the thread is cancelled once it has the file
std::vector<std::size_t> writeSizes;
int signalAfterOpen = 0;
bool signalAfterMaking = false;  // not after an open that makes nothing
int signalAfterWrite = 0;        // comes when the bytes are out and the call has not returned
bool writesInTwo = false;        // the next write takes its first piece only
}  // namespace
extern "C" int __real_open(const char* path, int flags, mode_t mode);
extern "C" int __wrap_open(const char* path, int flags, mode_t mode) {
  lastOpenFlags = flags;
  const int fd = __real_open(path, flags, mode);
  if (opensCancelled) ::pthread_cancel(::pthread_self());
  if (signalAfterOpen != 0 && (!signalAfterMaking || (fd >= 0 && (flags & O_CREAT) != 0)))
    ::raise(signalAfterOpen);
  return fd;
}

extern "C" ssize_t __real_writev(int fd, const iovec* pieces, int count);
extern "C" ssize_t __wrap_writev(int fd, const iovec* pieces, int count) {
  const int taken = std::exchange(writesInTwo, false) ? 1 : count;
  writeSizes.push_back(
      std::accumulate(pieces, pieces + taken, std::size_t{0},
                      [](std::size_t sum, const iovec& each) { return sum + each.iov_len; }));
  const ssize_t written = __real_writev(fd, pieces, taken);
  if (signalAfterWrite != 0) ::raise(signalAfterWrite);
  return written;
}

namespace {

using kes::test::inChild;
using kes::test::PcapFile;
using kes::test::readFile;
using kes::test::ScriptedClock;
using kes::test::TempDir;
using kes::test::writeFile;

bool dump(const std::string& packet, PCAP_TYPE type = PCAP_ETHERNET) {
  return DumpPacket(reinterpret_cast<const unsigned char*>(packet.data()),
                    static_cast<unsigned int>(packet.size()), type);
}

/// The next descriptor that this process would get.
int nextDescriptor() {
  const int fd = ::dup(0);
  ::close(fd);
  return fd;
}

bool exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

class CaptureTest : public testing::Test {
 protected:
  void SetUp() override {
    kes::time::ClockBase::init();
    std::memcpy(cap_types, m_pristine, sizeof m_pristine);
    writeSizes.clear();
  }

  static void SetUpTestSuite() { std::memcpy(m_pristine, cap_types, sizeof m_pristine); }

  TempDir dir_;
  const std::string file_ = dir_ / "capture.pcap";

 private:
  static inline CaptureType m_pristine[3];
};

TEST_F(CaptureTest, TheTableStartsWithThreeTypesNoneOpened) {
  static_assert(std::is_unsigned_v<PCAP_TYPE>);
  static_assert(sizeof cap_types == 3 * sizeof(CaptureType));
  EXPECT_EQ(cap_types[0].linkType, 1U);
  EXPECT_EQ(cap_types[1].linkType, 9U);
  EXPECT_EQ(cap_types[2].linkType, 12U);
  EXPECT_STREQ(cap_types[0].name, "eth");
  EXPECT_STREQ(cap_types[1].name, "ppp");
  EXPECT_STREQ(cap_types[2].name, "ip");
  for (const CaptureType& entry : cap_types) {
    EXPECT_EQ(entry.opened, 0);
    EXPECT_STREQ(entry.path, "");
    EXPECT_EQ(std::string(entry.name, sizeof entry.name).find_last_not_of('\0') + 1, std::strlen(entry.name));
  }
}

TEST_F(CaptureTest, AnEntryHasItsFieldsInOrder) {
  static_assert(offsetof(CaptureType, linkType) == 0);
  static_assert(offsetof(CaptureType, name) == 4);
  static_assert(offsetof(CaptureType, opened) == 20);
  static_assert(offsetof(CaptureType, path) == 21);
  static_assert(sizeof(CaptureType::name) == 16 && sizeof(CaptureType::path) >= 1024);
}

TEST_F(CaptureTest, ANewFileIsTheTwentyFourBytesOfTheHeader) {
  const char golden[] =
      "\xD4\xC3\xB2\xA1\x02\x00\x04\x00\x00\x00\x00\x00\x00\x00\x00\x00\xFF\xFF\x00\x00\x01\x00\x00\x00";
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  EXPECT_EQ(readFile(file_), std::string(golden, 24));
  EXPECT_EQ(cap_types[0].opened, 1);
  EXPECT_EQ(cap_types[0].path, file_);
}

TEST_F(CaptureTest, APacketIsItsHeaderAndItsBytes) {
  const ScriptedClock script(0x01020304, 123'456'789);
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  ASSERT_TRUE(dump("abcde"));
  const char golden[] =
      "\x04\x03\x02\x01\x40\xE2\x01\x00\x05\x00\x00\x00\x05\x00\x00\x00"
      "abcde";
  EXPECT_EQ(readFile(file_).substr(24), std::string(golden, 21));
}

TEST_F(CaptureTest, EachTypeWritesItsLinkTypeAndItsOwnFile) {
  for (PCAP_TYPE type : {PCAP_ETHERNET, PCAP_PPP, PCAP_IP}) {
    ASSERT_TRUE(DumpOpen((dir_ / "cap_%s.pcap").c_str(), type));
    ASSERT_TRUE(dump("packet " + std::to_string(type), type));
  }
  PCAP_TYPE type = 0;
  for (const char* name : {"cap_eth.pcap", "cap_ppp.pcap", "cap_ip.pcap"}) {
    const PcapFile file = PcapFile::parse(readFile(dir_ / name));
    EXPECT_EQ(file.linkType, cap_types[type].linkType);
    EXPECT_EQ(file.packets(), std::vector{"packet " + std::to_string(type)});
    ++type;
  }
}

TEST_F(CaptureTest, ANameWithAConversionHoldsTheTypesName) {
  ASSERT_TRUE(DumpOpen((dir_ / "x_%s").c_str(), 0));
  EXPECT_TRUE(exists(dir_ / "x_eth"));
}

TEST_F(CaptureTest, ASecondConversionIsTheNameItself) {
  const auto child = inChild([this] {
    if (::chdir(dir_.path().c_str()) != 0) return 1;
    return DumpOpen("x%s-%s", 1) ? 0 : 2;
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_TRUE(exists(dir_ / "xppp-x%s-%s"));
}

TEST_F(CaptureTest, APlainNameIsUsedAsItStands) {
  ASSERT_TRUE(DumpOpen((dir_ / "-trace").c_str(), 0));
  EXPECT_TRUE(exists(dir_ / "-trace"));
}

TEST_F(CaptureTest, OtherConversionsInANameAreHarmless) {
  ASSERT_TRUE(DumpOpen((dir_ / "%n%d%c%x%").c_str(), 0));
  EXPECT_TRUE(exists(dir_ / "%n%d%c%x%"));
}

TEST_F(CaptureTest, AnEmptyNameIsTheDefaultInTheRootDirectory) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root: the root directory of the test is made by chroot";
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    const auto child = inChild([this, name] {
      if (::chroot(dir_.path().c_str()) != 0) return 1;
      return DumpOpen(name, PCAP_ETHERNET) && DumpOpen(name, PCAP_IP) && dump("abc") ? 0 : 2;
    });
    ASSERT_EQ(child.exitCode(), 0);
    EXPECT_EQ(readFile(dir_ / "kes_dump_eth.pcap").size(), 24U + 16 + 3);
    EXPECT_EQ(readFile(dir_ / "kes_dump_ip.pcap").size(), 24U);
  }
}

TEST_F(CaptureTest, APacketOfATypeThatWasNotOpenedOpensTheDefaultFile) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root: the root directory of the test is made by chroot";
  const auto child = inChild([this] {
    if (::chroot(dir_.path().c_str()) != 0) return 1;
    return dump("one", PCAP_PPP) && dump("two", PCAP_PPP) && cap_types[1].opened == 1 ? 0 : 2;
  });
  ASSERT_EQ(child.exitCode(), 0);
  const PcapFile file = PcapFile::parse(readFile(dir_ / "kes_dump_ppp.pcap"));
  EXPECT_EQ(file.linkType, 9U);
  EXPECT_EQ(file.packets(), (std::vector<std::string>{"one", "two"}));
}

TEST_F(CaptureTest, APacketWhoseDefaultFileCannotBeOpenedIsRefused) {
  const auto child = kes::test::asNobody([] {
    if (::access("/", W_OK) == 0) return 3;
    return !dump("abc") && cap_types[0].opened == 0 ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST_F(CaptureTest, AFileGrowsBySixteenAndTheLengthPerPacket) {
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  std::size_t size = 24;
  for (std::size_t length :
       {0U, 1U, 2U, 3U, 64U, 1500U, 4080U, 4095U, 4096U, 4097U, 65535U, 65536U, 200'000U}) {
    ASSERT_TRUE(dump(std::string(length, 'x')));
    size += 16 + length;
    EXPECT_EQ(readFile(file_).size(), size);
  }
}

TEST_F(CaptureTest, APacketLongerThanTheSnapshotLengthIsWrittenWhole) {
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  ASSERT_TRUE(dump(std::string(70'000, 'y')));
  const PcapFile file = PcapFile::parse(readFile(file_));
  ASSERT_EQ(file.records.size(), 1U);
  EXPECT_EQ(file.records[0].wireLength, 70'000U);
  EXPECT_EQ(file.records[0].bytes, std::string(70'000, 'y'));
}

TEST_F(CaptureTest, AnEmptyPacketMayHaveNoData) {
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  ASSERT_TRUE(DumpPacket(nullptr, 0, 0));
  EXPECT_EQ(PcapFile::parse(readFile(file_)).packets(), std::vector<std::string>{""});
}

TEST_F(CaptureTest, UnreadableDataLeavesTheFileAsItWas) {
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  ASSERT_TRUE(dump("abc"));
  DumpPacket(nullptr, 100, 0);
  EXPECT_EQ(PcapFile::parse(readFile(file_)).packets(), std::vector<std::string>{"abc"});
  EXPECT_EQ(readFile(file_).size(), 24U + 19);
}

TEST_F(CaptureTest, ASecondRunStartsTheFileAfresh) {
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  ASSERT_TRUE(dump("old"));
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  EXPECT_EQ(readFile(file_).size(), 24U);
  ASSERT_TRUE(dump("new"));
  EXPECT_EQ(PcapFile::parse(readFile(file_)).packets(), std::vector<std::string>{"new"});
}

TEST_F(CaptureTest, AFileEmptiedBetweenPacketsGetsANewHeader) {
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  ASSERT_TRUE(dump("lost"));
  ASSERT_EQ(::truncate(file_.c_str(), 0), 0);
  ASSERT_TRUE(dump("kept"));
  const PcapFile file = PcapFile::parse(readFile(file_));
  EXPECT_TRUE(file.hasHeader);
  EXPECT_EQ(file.packets(), std::vector<std::string>{"kept"});
}

TEST_F(CaptureTest, AFileRemovedBetweenPacketsIsMadeAgain) {
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  ASSERT_EQ(::unlink(file_.c_str()), 0);
  ASSERT_TRUE(dump("kept"));
  EXPECT_EQ(PcapFile::parse(readFile(file_)).packets(), std::vector<std::string>{"kept"});
}

TEST_F(CaptureTest, TimestampsAreCutToMicroseconds) {
  ScriptedClock script(1'700'000'000, 999'999'999);
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  ASSERT_TRUE(dump("abc"));
  script.set(4'294'967'295, 999);
  ASSERT_TRUE(dump("abc"));
  const PcapFile file = PcapFile::parse(readFile(file_));
  EXPECT_EQ(file.records[0].seconds, 1'700'000'000U);
  EXPECT_EQ(file.records[0].microseconds, 999'999U);
  EXPECT_EQ(file.records[1].seconds, 4'294'967'295U);
  EXPECT_EQ(file.records[1].microseconds, 0U);
}

TEST_F(CaptureTest, AFailedClockRaisesWritesNothingAndLeavesNoDescriptor) {
  ScriptedClock script(1, 0);
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  const int before = nextDescriptor();
  script.fail(EPERM);
  EXPECT_THROW(dump("abc"), kes::OsError);
  EXPECT_EQ(nextDescriptor(), before);
  EXPECT_EQ(readFile(file_).size(), 24U);
}

TEST_F(CaptureTest, ACancelledThreadClosesItsFile) {
  if (kes::test::isSanitized)
    GTEST_SKIP() << "the sanitizers do not follow the unwinding of a cancelled thread";
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

TEST_F(CaptureTest, AFileThatCannotBeMadeGivesFalseAndStaysNotOpened) {
  EXPECT_FALSE(DumpOpen((dir_ / "no/such/folder").c_str(), 0));
  EXPECT_FALSE(DumpOpen(dir_.path().c_str(), 0));
  EXPECT_EQ(cap_types[0].opened, 0);
}

TEST_F(CaptureTest, APacketWhoseFileCannotBeOpenedGivesFalse) {
  const std::string folder = dir_ / "folder";
  ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
  ASSERT_TRUE(DumpOpen((folder + "/file").c_str(), 0));
  ASSERT_EQ(::rename(folder.c_str(), (dir_ / "moved").c_str()), 0);
  EXPECT_FALSE(dump("lost"));
  ASSERT_EQ(::rename((dir_ / "moved").c_str(), folder.c_str()), 0);
  EXPECT_TRUE(dump("kept"));
  EXPECT_EQ(PcapFile::parse(readFile(folder + "/file")).packets(), std::vector<std::string>{"kept"});
}

TEST_F(CaptureTest, ANameThatDoesNotFitIsAnOpenFailureAndNothingIsMade) {
  std::string name = dir_.path();
  while (name.size() < 900) name += "/.";
  name += '/' + std::string(1023 - name.size() - 1, 'n');
  ASSERT_EQ(name.size(), 1023U);
  EXPECT_TRUE(DumpOpen(name.c_str(), 0));
  EXPECT_FALSE(DumpOpen((name + 'n').c_str(), 0));
  EXPECT_FALSE(exists(name + 'n'));
  EXPECT_FALSE(dump("abc")) << "a packet went into a file that nobody chose";
  EXPECT_EQ(readFile(name).size(), 24U);
}

TEST_F(CaptureTest, ANameThatDoesNotFitIsAnOpenFailureHoweverShortItsExpansion) {
  std::string name = dir_ / "short";
  while (name.size() < 1024) name += "%1$.0s";
  EXPECT_FALSE(DumpOpen(name.c_str(), 0));
  EXPECT_FALSE(exists(dir_ / "short"));
  EXPECT_EQ(cap_types[0].opened, 0);
  name = dir_ / "short%%";
  while (name.size() + 6 < 1024) name += "%1$.0s";
  EXPECT_TRUE(DumpOpen(name.c_str(), 0)) << "and one that fits is none";
  EXPECT_TRUE(exists(dir_ / "short%"));
}

TEST_F(CaptureTest, AnExpansionThatDoesNotFitIsAnOpenFailure) {
  EXPECT_FALSE(DumpOpen((dir_ / "%99999s").c_str(), 0));
  EXPECT_FALSE(DumpOpen(
      (dir_ / "%s%s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s%2$s").c_str(), 0));
  EXPECT_FALSE(DumpOpen("%.0s", 0)) << "an empty path";
}

TEST_F(CaptureTest, ATypeAboveTwoGivesFalse) {
  for (PCAP_TYPE type : {3U, 4U, std::numeric_limits<PCAP_TYPE>::max()}) {
    EXPECT_FALSE(DumpOpen(file_.c_str(), type));
    EXPECT_FALSE(dump("abc", type));
  }
  EXPECT_FALSE(exists(file_));
}

TEST_F(CaptureTest, NewFilesHaveTheModeOfTheUmask) {
  const auto child = inChild([this] {
    ::umask(027);
    return DumpOpen(file_.c_str(), 0) ? 0 : 1;
  });
  ASSERT_EQ(child.exitCode(), 0);
  struct stat status;
  ASSERT_EQ(::stat(file_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
}

TEST_F(CaptureTest, AnExistingFileKeepsItsMode) {
  writeFile(file_, "old content");
  ASSERT_EQ(::chmod(file_.c_str(), 0600), 0);
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  struct stat status;
  ASSERT_EQ(::stat(file_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
  EXPECT_EQ(readFile(file_).size(), 24U);
}

TEST_F(CaptureTest, AFifoGetsOneHeaderAndThenTheRecords) {
  ASSERT_EQ(::mkfifo(file_.c_str(), 0600), 0);
  const int reader = ::open(file_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  ASSERT_TRUE(dump("one"));
  ASSERT_TRUE(dump("two"));
  std::string bytes(4096, '\0');
  const ssize_t count = ::read(reader, bytes.data(), bytes.size());
  ::close(reader);
  ASSERT_EQ(count, 24 + 2 * 19);
  bytes.resize(static_cast<std::size_t>(count));
  EXPECT_EQ(PcapFile::parse(bytes).packets(), (std::vector<std::string>{"one", "two"}));
}

TEST_F(CaptureTest, AFifoGetsTheRestOfARecordOfWhichItTookAPart) {
  ASSERT_EQ(::mkfifo(file_.c_str(), 0600), 0);
  const int reader = ::open(file_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  writesInTwo = true;
  ASSERT_TRUE(dump("abc"));
  EXPECT_EQ(writeSizes, (std::vector<std::size_t>{24, 16, 3}));
  char bytes[100];
  EXPECT_EQ(::read(reader, bytes, sizeof bytes), 24 + 16 + 3);
  ::close(reader);
}

TEST_F(CaptureTest, ADeviceGetsOneHeaderAndThenTheRecordsWithoutComplaint) {
  for (const char* device : {"/dev/null", "/dev/full"}) {
    writeSizes.clear();
    ASSERT_TRUE(DumpOpen(device, 0));
    EXPECT_TRUE(dump("abc")) << "failed writes are not reported";
    EXPECT_TRUE(dump("abcd"));
    EXPECT_EQ(writeSizes, (std::vector<std::size_t>{24, 16 + 3, 16 + 4})) << device;
  }
}

/// A file that the system shows as a disk while this lives.
class LoopDevice {
 public:
  explicit LoopDevice(const std::string& file) {
    const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    const int number = ::ioctl(control, LOOP_CTL_GET_FREE);
    ::close(control);
    path_ = "/dev/loop" + std::to_string(number);
    fd_ = ::open(path_.c_str(), O_RDWR | O_CLOEXEC);
    const int backing = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
    isThere_ = ::ioctl(fd_, LOOP_SET_FD, backing) == 0;
    ::close(backing);
  }
  ~LoopDevice() {
    if (isThere_) ::ioctl(fd_, LOOP_CLR_FD, 0);
    ::close(fd_);
  }
  LoopDevice(const LoopDevice&) = delete;
  LoopDevice& operator=(const LoopDevice&) = delete;

  bool isThere() const { return isThere_; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  int fd_ = -1;
  bool isThere_ = false;
};

TEST_F(CaptureTest, ADiskGetsTheHeaderAtItsStartAndKeepsItWhateverFollows) {
  writeFile(dir_ / "disk", std::string(65'536, 'd'));
  const LoopDevice disk(dir_ / "disk");
  if (!disk.isThere()) GTEST_SKIP() << "making a disk of a file is not permitted here";
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  const std::string header = readFile(file_);
  ASSERT_TRUE(DumpOpen(disk.path().c_str(), 0));
  EXPECT_TRUE(dump("abc")) << "failed writes are not reported";
  const std::string bytes = readFile(disk.path());
  EXPECT_EQ(bytes.size(), 65'536U);
  EXPECT_EQ(bytes.substr(0, 32), header + "dddddddd");
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

TEST_F(CaptureTest, ASignalWhileAPacketMakesARemovedFileAnewFindsTheHeader) {
  const auto child = inChild([this] {
    DumpOpen(file_.c_str(), 0);
    ::unlink(file_.c_str());
    signalAfterOpen = SIGTERM;
    signalAfterMaking = true;
    dump("abc");
    return 1;
  });
  EXPECT_EQ(child.signal(), SIGTERM);
  EXPECT_EQ(readFile(file_).size(), 24U);
}

TEST_F(CaptureTest, AFileMadeAnewHasItsHeaderThoughTheClockFails) {
  ScriptedClock script(1, 0);
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  ASSERT_EQ(::unlink(file_.c_str()), 0);
  script.fail(EPERM);
  EXPECT_THROW(dump("abc"), kes::OsError);
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

TEST_F(CaptureTest, APathInTheTableMayBeTheNameOfTheNextCapture) {
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  ASSERT_TRUE(dump("abc"));
  ASSERT_TRUE(DumpOpen(cap_types[0].path, 0));
  EXPECT_EQ(readFile(file_).size(), 24U);
}

TEST_F(CaptureTest, FilesAreCloseOnExec) {
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  EXPECT_NE(lastOpenFlags & O_CLOEXEC, 0);
  ASSERT_TRUE(dump("abc"));
  EXPECT_NE(lastOpenFlags & O_CLOEXEC, 0);
}

}  // namespace
