#include "kespal/fs/StreamFile.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

using test::Call;
using test::Raised;
using test::raisedBy;
using test::Refuse;
using test::TempDir;
using ::testing::ElementsAre;

constexpr const char* site = "src/os/posix/fs/StreamFile";

class StreamFileTest : public ::testing::Test {
 protected:
  void openWith(const std::string& content) {
    test::writeFile(path_, content);
    file_.open(path_.c_str(), File::READ_WRITE);
  }

  std::string readUpTo(std::size_t size) {
    std::string text(size, '?');
    text.resize(file_.read(text.data(), size));
    return text;
  }

  const TempDir folder_;
  const std::string path_ = folder_ / "file";
  StreamFile file_;
};

/// A pipe whose two ends are stream files.
struct StreamPipe {
  StreamFile in, out;
  explicit StreamPipe(int flags = 0) {
    Pipe pipe;
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | flags) == 0) pipe = {ends[0], ends[1]};
    in.open(pipe, true);
    out.open(pipe, false);
  }
};

TEST_F(StreamFileTest, TheSeekBasesHaveTheirNumbers) {
  EXPECT_EQ(StreamFile::FROM_START, 0);
  EXPECT_EQ(StreamFile::FROM_CURRENT, 1);
  EXPECT_EQ(StreamFile::FROM_END, 2);
}

TEST_F(StreamFileTest, ReadingGivesWhatIsThereAndZeroAtTheEnd) {
  openWith("content");
  EXPECT_EQ(readUpTo(3), "con");
  EXPECT_EQ(readUpTo(100), "tent");
  EXPECT_EQ(readUpTo(100), "");
  EXPECT_EQ(readUpTo(100), "");
}

TEST_F(StreamFileTest, ReadingNoBytesGivesNone) {
  openWith("content");
  EXPECT_EQ(readUpTo(0), "");
  EXPECT_EQ(file_.read(nullptr, 0), 0u);
  EXPECT_EQ(readUpTo(100), "content");
}

TEST_F(StreamFileTest, WritingPutsBytesWhereTheOffsetIs) {
  openWith("content");
  EXPECT_EQ(file_.write("CON", 3), 3u);
  EXPECT_EQ(file_.write("", 0), 0u);
  EXPECT_EQ(test::readFile(path_), "CONtent");
}

TEST_F(StreamFileTest, EveryBaseCountsFromItsPlaceAndAnyOtherFromTheStart) {
  openWith("0123456789");
  EXPECT_EQ(file_.seek(4), 4u);
  EXPECT_EQ(file_.seek(3, StreamFile::FROM_START), 3u);
  EXPECT_EQ(file_.seek(2, StreamFile::FROM_CURRENT), 5u);
  EXPECT_EQ(readUpTo(1), "5");
  EXPECT_EQ(file_.seek(static_cast<std::size_t>(-2), StreamFile::FROM_END), 8u);
  EXPECT_EQ(readUpTo(5), "89");
  for (const int base : {3, -1, 1000}) {
    EXPECT_EQ(file_.seek(7, static_cast<StreamFile::SeekBase>(base)), 7u) << base;
  }
  EXPECT_EQ(file_.seek(100, StreamFile::FROM_END), 110u) << "an offset behind the end is no error";
}

TEST_F(StreamFileTest, AnOffsetBeforeTheStartIsAnOsError) {
  openWith("0123456789");
  EXPECT_EQ(raisedBy([&] { file_.seek(static_cast<std::size_t>(-1), StreamFile::FROM_CURRENT); }),
            (Raised{"kes::OsError", EINVAL, "", site, "seek"}));
}

TEST_F(StreamFileTest, APipeCannotBeSought) {
  StreamPipe pipe;
  EXPECT_EQ(raisedBy([&] { pipe.in.seek(0); }), (Raised{"kes::OsError", ESPIPE, "", site, "seek"}));
}

TEST_F(StreamFileTest, FlushingAFileSucceeds) {
  openWith("content");
  EXPECT_TRUE(file_.flush());
}

TEST_F(StreamFileTest, FlushingWhatCannotBeSyncedIsFalse) {
  StreamPipe pipe;
  EXPECT_FALSE(pipe.in.flush());
  EXPECT_FALSE(pipe.out.flush());
  StreamFile device, terminal;
  device.open("/dev/full", File::WRITE);
  EXPECT_FALSE(device.flush());
  terminal.open("/dev/ptmx", File::READ_WRITE);
  EXPECT_FALSE(terminal.flush());
}

TEST_F(StreamFileTest, AFlushThatFailsOtherwiseIsAnOsError) {
  openWith("content");
  for (const int errnum : {EIO, ENOSPC, EDQUOT, EINTR, EROFS, EBADF, ENOTSUP}) {
    const Refuse failing(Call::fsync, errnum);
    EXPECT_EQ(raisedBy([&] { file_.flush(); }), (Raised{"kes::OsError", errnum, "", site, "flush"}));
  }
  const Refuse failing(Call::fsync, EINVAL);
  EXPECT_FALSE(file_.flush());
}

TEST_F(StreamFileTest, EveryErrnoOfReadingHasItsClass) {
  openWith("content");
  struct Row {
    int errnum;
    const char* type;
  };
  const Row table[] = {{ESRCH, "kes::NoSuchProcessError"}, {EINTR, "kes::OsError"},  {EIO, "kes::OsError"},
                       {EAGAIN, "kes::OsError"},           {EINVAL, "kes::OsError"}, {12345, "kes::OsError"}};
  for (const Row& row : table) {
    const Refuse failing(Call::read, row.errnum);
    EXPECT_EQ(raisedBy([&] { readUpTo(1); }), (Raised{row.type, row.errnum, "", site, "read"}));
  }
}

TEST_F(StreamFileTest, EveryErrnoOfWritingAndSeekingIsAnOsError) {
  openWith("content");
  for (const int errnum : {EINTR, EAGAIN, EPIPE, ENOSPC, EFBIG, EIO, ESRCH}) {
    const Refuse writing(Call::write, errnum);
    EXPECT_EQ(raisedBy([&] { file_.write("x", 1); }), (Raised{"kes::OsError", errnum, "", site, "write"}));
  }
  for (const int errnum : {EOVERFLOW, ENXIO, ESRCH}) {
    const Refuse seeking(Call::lseek, errnum);
    EXPECT_EQ(raisedBy([&] { file_.seek(0); }), (Raised{"kes::OsError", errnum, "", site, "seek"}));
  }
}

TEST_F(StreamFileTest, TheEntryOfAnEndedProcessIsANoSuchProcessError) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::pause();
    ::_exit(0);
  }
  ASSERT_GT(pid, 0);
  file_.open(("/proc/" + std::to_string(pid) + "/stat").c_str(), File::READ);
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
  EXPECT_EQ(raisedBy([&] { readUpTo(1); }), (Raised{"kes::NoSuchProcessError", ESRCH, "", site, "read"}));
}

TEST_F(StreamFileTest, ReadingADirectoryIsAnOsError) {
  file_.open(folder_.path().c_str(), File::READ);
  EXPECT_EQ(raisedBy([&] { readUpTo(1); }), (Raised{"kes::OsError", EISDIR, "", site, "read"}));
}

TEST_F(StreamFileTest, AFullDeviceIsAnOsError) {
  file_.open("/dev/full", File::WRITE);
  EXPECT_EQ(raisedBy([&] { file_.write("x", 1); }), (Raised{"kes::OsError", ENOSPC, "", site, "write"}));
}

TEST_F(StreamFileTest, WithoutAnOpenFileEveryOperationFails) {
  char byte = 0;
  EXPECT_EQ(raisedBy([&] { file_.read(&byte, 1); }), (Raised{"kes::OsError", EBADF, "", site, "read"}));
  EXPECT_EQ(raisedBy([&] { file_.write(&byte, 1); }), (Raised{"kes::OsError", EBADF, "", site, "write"}));
  EXPECT_EQ(raisedBy([&] { file_.flush(); }), (Raised{"kes::OsError", EBADF, "", site, "flush"}));
  EXPECT_EQ(raisedBy([&] { file_.seek(0); }), (Raised{"kes::OsError", EBADF, "", site, "seek"}));
}

TEST_F(StreamFileTest, TheModeDecidesWhichDirectionWorks) {
  test::writeFile(path_, "content");
  char byte = 'x';
  file_.open(path_.c_str(), File::READ);
  EXPECT_EQ(raisedBy([&] { file_.write(&byte, 1); }).errnum, EBADF);
  file_.open(path_.c_str(), File::WRITE);
  EXPECT_EQ(raisedBy([&] { file_.read(&byte, 1); }).errnum, EBADF);
}

TEST_F(StreamFileTest, AShortWriteIsReportedAsItIs) {
  StreamPipe pipe(O_NONBLOCK);
  const std::string much(std::size_t{4} << 20, 'x');
  const std::size_t written = pipe.out.write(much.data(), much.size());
  EXPECT_GT(written, 0u);
  EXPECT_LT(written, much.size());
  EXPECT_EQ(raisedBy([&] { pipe.out.write(much.data(), much.size()); }).errnum, EAGAIN);
}

TEST_F(StreamFileTest, APipeWithoutReaderIsAnOsErrorWhenTheSignalIsIgnored) {
  const auto child = test::inChild([] {
    ::signal(SIGPIPE, SIG_IGN);
    StreamPipe pipe;
    pipe.in.close();
    std::cout << raisedBy([&] { pipe.out.write("x", 1); });
    return 0;
  });
  EXPECT_EQ(child.out, "kes::OsError 32 \"\" at src/os/posix/fs/StreamFile (write)");
}

TEST_F(StreamFileTest, AnInterruptedReadIsNotRepeated) {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(::sigaction(SIGUSR1, &action, nullptr), 0);
  StreamPipe pipe;
  const pthread_t reader = ::pthread_self();
  std::atomic<bool> done = false;
  std::thread signals([&] {
    while (!done) {
      ::pthread_kill(reader, SIGUSR1);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  char byte = 0;
  const Raised raised = raisedBy([&] { pipe.in.read(&byte, 1); });
  done = true;
  signals.join();
  EXPECT_EQ(raised, (Raised{"kes::OsError", EINTR, "", site, "read"}));
}

TEST_F(StreamFileTest, MoreThanTheSystemTakesAtOnceIsAShortWrite) {
  const std::size_t size = std::size_t{3} << 30;
  void* const room = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(room, MAP_FAILED);
  file_.open("/dev/null", File::READ_WRITE);
  EXPECT_EQ(file_.write(room, size), 0x7ffff000u);
  EXPECT_EQ(file_.read(room, size), 0u);
  ::munmap(room, size);
}

TEST_F(StreamFileTest, EveryOperationIsOneSystemCall) {
  openWith("content");
  const test::CallTrace trace;
  readUpTo(3);
  file_.write("x", 1);
  file_.seek(0);
  file_.flush();
  file_.truncate(0);
  file_.close();
  EXPECT_THAT(trace.calls(), ElementsAre("read", "write", "lseek", "fsync", "ftruncate", "close"));
}

TEST_F(StreamFileTest, BothInterfacesReachTheFile) {
  openWith("content");
  IInOut& both = file_;
  IInput& input = both;
  IOutput& output = both;
  char bytes[4] = {};
  EXPECT_EQ(input.read(bytes, 3), 3u);
  EXPECT_STREQ(bytes, "con");
  EXPECT_EQ(output.write("TENT", 4), 4u);
  EXPECT_TRUE(output.flush());
  EXPECT_EQ(test::readFile(path_), "conTENT");
}

TEST_F(StreamFileTest, ASparseFileIsLargerThanFourGigabytes) {
  openWith("");
  const std::size_t far = (std::size_t{5} << 30) + 7;
  EXPECT_EQ(file_.seek(far), far);
  file_.write("x", 1);
  EXPECT_EQ(file_.seek(0, StreamFile::FROM_END), far + 1);
  file_.truncate(far);
  EXPECT_EQ(file_.seek(0, StreamFile::FROM_END), far);
}

}  // namespace
}  // namespace kes::fs
