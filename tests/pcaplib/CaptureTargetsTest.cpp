#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "pcaplib/CaptureFixture.h"
#include "support/PcapFile.h"

namespace kes::test {
namespace {

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

}  // namespace
}  // namespace kes::test
