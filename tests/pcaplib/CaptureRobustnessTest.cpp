#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <iostream>
#include <random>

#include "kespal/time/Clock.h"
#include "pcaplib/capture.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/PcapFile.h"
#include "support/PrivateMount.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace {

using kes::test::eventually;
using kes::test::inChild;
using kes::test::mountPrivately;
using kes::test::PcapFile;
using kes::test::readFile;
using kes::test::TempDir;
using kes::test::writeFile;

std::string packet(std::size_t length) { return std::string(length, static_cast<char>('!' + length % 89)); }

bool dump(const std::string& bytes) {
  return DumpPacket(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<unsigned>(bytes.size()),
                    0);
}

bool isWhole(const PcapFile& file) {
  for (const auto& record : file.records) {
    if (record.bytes != packet(record.bytes.size())) return false;
  }
  return file.hasHeader;
}

/// A child that writes packets of all lengths until it is killed, and starts the file anew now and then.
class Writer {
 public:
  /// Returns when the child is at work.
  explicit Writer(const std::string& path) {
    const kes::test::TestPipe started;
    pid_ = ::fork();
    if (pid_ == 0) {
      started.write("!");
      run(path);
    }
    char byte = 0;
    EXPECT_EQ(::read(started.reader, &byte, 1), 1);
  }
  ~Writer() { kill(SIGKILL); }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  void kill(int number) {
    if (pid_ <= 0) return;
    ::kill(pid_, number);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  [[noreturn]] static void run(const std::string& path) {
    std::mt19937 random(99);
    std::uniform_int_distribution<unsigned> length(3, 4096);
    while (DumpOpen(path.c_str(), 0)) {
      for (int i = 0; i < 100; ++i) {
        if (!dump(packet(length(random)))) ::_exit(1);
      }
    }
    ::_exit(1);
  }

  pid_t pid_ = -1;
};

class CaptureRobustnessTest : public testing::Test {
 protected:
  void SetUp() override {
    kes::time::ClockBase::init();
    ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  }

  TempDir dir_;
  const std::string file_ = dir_ / "capture";
};

/// Where a file can end within a record: the system makes a write visible page by page, and ends the write of
/// a killed process there. Records written in pieces would end anywhere.
bool isWithinOneWrite(off_t end) { return end % ::sysconf(_SC_PAGESIZE) == 0; }

/// What a reader of a growing file does: it reads on from the record it last saw whole.
class GrowingFile {
 public:
  explicit GrowingFile(const std::string& path) : path_(path) {}

  /// Opens the file and reads all that is new; false when its end was not whole.
  bool look() {
    const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status;
    ::fstat(fd, &status);
    std::string bytes(static_cast<std::size_t>(status.st_size - at_), '\0');
    const ssize_t count = ::pread(fd, bytes.data(), bytes.size(), at_);
    ::close(fd);
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    const PcapFile part = PcapFile::parse(header_ + bytes);
    intact_ = intact_ && isWhole(part) && (part.torn == 0 || isWithinOneWrite(status.st_size));
    at_ += static_cast<off_t>(bytes.size() - part.torn);
    return part.torn == 0;
  }

  bool intact() const { return intact_; }
  off_t size() const { return at_; }

 private:
  std::string path_, header_{readFile(path_).substr(0, 24)};
  off_t at_ = 24;
  bool intact_ = true;
};

TEST_F(CaptureRobustnessTest, AReaderThatOpensTheGrowingFileTenThousandTimesFindsWholeRecords) {
  const pid_t writer = ::fork();
  if (writer == 0) {
    std::mt19937 random(5);
    std::uniform_int_distribution<unsigned> length(3, 4096);
    for (int i = 0; i < 50'000; ++i) {
      if (!dump(packet(length(random)))) ::_exit(1);
    }
    ::_exit(0);
  }
  GrowingFile file(file_);
  int looks = 0, caught = 0;
  // A record that is not whole at one look, because its write runs at that moment, is read again at the next.
  for (; looks < 10'000; ++looks) {
    if (!file.look()) ++caught;
    ASSERT_TRUE(file.intact());
  }
  ::kill(writer, SIGKILL);
  ::waitpid(writer, nullptr, 0);
  file.look();
  EXPECT_TRUE(file.intact());
  EXPECT_GT(file.size(), 24);
  std::cout << caught << " of " << looks << " looks met a running write\n";
}

bool hasOtherRecords(const std::string& path, const std::string& before) {
  const std::string bytes = readFile(path);
  return bytes != before && bytes.size() > 24;
}

/// What each of many writers leaves behind that one signal kills at some moment of its first milliseconds.
/// Every other one has written something by then: on a busy machine a writer may not get to it in that time.
void killAtManyMoments(const std::string& path, int number, int rounds,
                       const std::function<void(const std::string& bytes)>& look) {
  std::mt19937 random(17);
  std::uniform_int_distribution<long> nanoseconds(0, 3'000'000);
  for (int round = 0; round < rounds; ++round) {
    const std::string before = readFile(path);
    Writer writer(path);
    const bool isReady = round % 2 == 1 || eventually([&] { return hasOtherRecords(path, before); });
    EXPECT_TRUE(isReady);
    const ::timespec moment{.tv_sec = 0, .tv_nsec = nanoseconds(random)};
    ::nanosleep(&moment, nullptr);
    writer.kill(number);
    look(readFile(path));
  }
}

TEST_F(CaptureRobustnessTest, KillingTheWriterAtTwoHundredMomentsLeavesAFileThatParses) {
  int torn = 0;
  killAtManyMoments(file_, SIGKILL, 200, [&torn](const std::string& bytes) {
    if (bytes.empty()) return;  // killed between emptying the file and writing its header
    const PcapFile file = PcapFile::parse(bytes);
    EXPECT_TRUE(isWhole(file));
    if (file.torn == 0) return;
    ++torn;
    EXPECT_TRUE(isWithinOneWrite(static_cast<off_t>(bytes.size())));
  });
  std::cout << torn << " of 200 kills met a running write\n";
}

TEST_F(CaptureRobustnessTest, TheSignalsThatPeopleEndAProgramWithNeverTearARecord) {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    std::size_t whole = 0;
    killAtManyMoments(file_, number, 150, [&whole](const std::string& bytes) {
      const PcapFile file = PcapFile::parse(bytes);
      EXPECT_TRUE(isWhole(file));
      EXPECT_EQ(file.torn, 0U);
      whole += file.records.size();
    });
    EXPECT_GT(whole, 30U) << "hardly anything was written";
  }
}

/// Fills what is left of the file system.
void fill(const std::string& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const std::string block(512, 'f');
  while (::write(fd, block.data(), block.size()) > 0) continue;
  ::close(fd);
}

bool isSound(const std::string& path) {
  const PcapFile file = PcapFile::parse(readFile(path));
  return isWhole(file) && file.torn == 0;
}

/// One line per broken promise goes to standard output.
void useFullFileSystem(const std::string& folder) {
  const std::string file = folder + "/capture", filler = folder + "/filler";
  const auto check = [](bool holds, const char* promise) {
    if (!holds) std::cout << promise << '\n';
  };
  fill(filler);
  check(DumpOpen(file.c_str(), 0), "a header that cannot be written is not reported");
  check(dump(packet(100)), "a record that cannot be written is not reported");
  check(readFile(file).empty(), "nothing is left of what could not be written");
  check(::truncate(filler.c_str(), 16384) == 0, "there is room again");
  check(dump(packet(101)) && isSound(file), "with room the file gets its header and a record");
  for (unsigned length = 3; length < 4096; length += 21) {
    check(dump(packet(length)), "every packet is taken");
    check(isSound(file), "the file parses after every packet");
  }
  const std::size_t full = readFile(file).size();
  check(full > 40'000 && full <= 49'152, "the file used the room there was");
  ::unlink(filler.c_str());
  check(dump(packet(3000)) && isSound(file), "with room again the file goes on");
  check(readFile(file).size() == full + 16 + 3000, "by the record that fits");
}

TEST_F(CaptureRobustnessTest, AFullFileSystemLosesPacketsButTheFileParsesBeforeDuringAndAfter) {
  const auto child = inChild([this] {
    if (!mountPrivately(dir_.path(), "64k")) return 77;
    useFullFileSystem(dir_.path());
    return 0;
  });
  if (child.exitCode() == 77) GTEST_SKIP() << "mounting a file system of one's own is not permitted here";
  EXPECT_EQ(child.exitCode(), 0) << child.err;
  EXPECT_EQ(child.out, "");
}

}  // namespace
