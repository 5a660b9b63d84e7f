#include "pcaplib/Writer.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "kespal/error/OsError.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/FileStatus.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"
#include "support/PcapFile.h"
#include "support/PrivateMount.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"
#include "support/ScriptedClock.h"
#include "support/TempDir.h"

namespace kes::pcap {
namespace {

using test::Call;
using test::inChild;
using test::Instead;
using test::PcapFile;
using test::raisedBy;
using test::readFile;
using test::real;
using test::ScriptedClock;
using test::TempDir;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// Every write comes through here, and so do the calls that begin, end and take back.
int writeFailure = 0;         // errno of the next writes
int writesBeforeIt = 0;       // that many go through first
std::size_t mostWritten = 0;  // of a write, unless 0
int truncateFailure = 0;
int closeFailure = 0;
int signalInWrite = 0;
bool cancelledInWrite = false;
int openFlags = 0;

const Instead<Call::open> openHere([](const char* path, int flags, void* mode) {
  openFlags = flags;
  return real<Call::open>(path, flags, mode);
});

const Instead<Call::writev> writevHere([](int fd, const iovec* pieces, int count) -> ssize_t {
  if (signalInWrite != 0) ::raise(signalInWrite);
  if (cancelledInWrite) ::pthread_cancel(::pthread_self());
  if (writeFailure != 0 && writesBeforeIt-- <= 0) return errno = writeFailure, -1;
  if (mostWritten == 0) return real<Call::writev>(fd, pieces, count);
  return ::write(fd, pieces->iov_base, std::min(pieces->iov_len, mostWritten));
});

const Instead<Call::ftruncate> ftruncateHere([](int fd, off_t length) {
  if (truncateFailure != 0) return errno = truncateFailure, -1;
  return real<Call::ftruncate>(fd, length);
});

const Instead<Call::close> closeHere([](int fd) {
  const int result = real<Call::close>(fd);
  if (closeFailure != 0) return errno = std::exchange(closeFailure, 0), -1;
  return result;
});

Packet packetOf(std::string_view bytes) {
  return {.data = bytes.data(), .length = static_cast<std::uint32_t>(bytes.size())};
}

std::uint32_t numberAt(const std::string& bytes, std::size_t at) {
  std::uint32_t number = 0;
  std::memcpy(&number, bytes.data() + at, sizeof number);
  return number;
}

/// A block of pcapng.
struct Block {
  std::uint32_t type;
  std::string body;
};

std::vector<Block> blocksOf(const std::string& file) {
  std::vector<Block> blocks;
  for (std::size_t at = 0; at < file.size();) {
    const std::uint32_t length = numberAt(file, at + 4);
    if (length < 12 || length % 4 != 0 || at + length > file.size() ||
        numberAt(file, at + length - 4) != length) {
      throw std::runtime_error("no block at " + std::to_string(at));
    }
    blocks.push_back({numberAt(file, at), file.substr(at + 8, length - 12)});
    at += length;
  }
  return blocks;
}

/// An option of pcapng with its padding.
std::string option(std::uint16_t code, std::string value) {
  std::string bytes(4, '\0');
  const auto size = static_cast<std::uint16_t>(value.size());
  std::memcpy(bytes.data(), &code, 2);
  std::memcpy(bytes.data() + 2, &size, 2);
  value.resize((value.size() + 3) / 4 * 4);
  return bytes + value;
}

struct WriterTest : testing::Test {
  TempDir dir;
  std::string path = dir / "capture";
  const timespec time{1'700'000'000, 123'456'789};

  Writer open(Format format = Format::Pcap) const { return {path.c_str(), {.format = format}}; }
  int write(Writer& writer, const std::string& bytes) const {
    Packet packet = packetOf(bytes);
    packet.time = &time;
    return writer.write(packet);
  }
};

TEST_F(WriterTest, AClassicFileHasHeaderAndRecordsWithMicroseconds) {
  Writer writer = open();
  EXPECT_EQ(write(writer, "one"), 0);
  EXPECT_EQ(write(writer, ""), 0);
  const PcapFile file = PcapFile::parse(readFile(path));
  EXPECT_EQ(numberAt(readFile(path), 0), 0xA1B2C3D4U);
  EXPECT_EQ(file.linkType, 1U);
  EXPECT_EQ(file.snapshotLength, 262144U);
  ASSERT_EQ(file.records.size(), 2U);
  EXPECT_EQ(file.records[0], (test::PcapRecord{1'700'000'000, 123'456, 3, "one"}));
  EXPECT_EQ(file.torn, 0U);
}

TEST_F(WriterTest, ANanosecondFileSaysSoAndHasThem) {
  Writer writer = open(Format::NanosecondPcap);
  EXPECT_EQ(write(writer, "one"), 0);
  EXPECT_EQ(numberAt(readFile(path), 0), 0xA1B23C4DU);
  EXPECT_EQ(numberAt(readFile(path), 28), 123'456'789U);
}

TEST_F(WriterTest, ASectionAnInterfaceAndPacketsMakeAPcapngFile) {
  Writer writer(
      path.c_str(),
      {.format = Format::Pcapng, .linkType = 101, .interfaceName = "utun3", .comment = "on the way home"});
  Packet packet = packetOf("hello");
  packet.time = &time;
  packet.comment = "the first one";
  EXPECT_EQ(writer.write(packet), 0);
  EXPECT_EQ(write(writer, "four"), 0);

  const auto blocks = blocksOf(readFile(path));
  ASSERT_EQ(blocks.size(), 4U);
  EXPECT_EQ(blocks[0].type, 0x0A0D0D0AU);
  EXPECT_EQ(numberAt(blocks[0].body, 0), 0x1A2B3C4DU);
  EXPECT_THAT(blocks[0].body, EndsWith(option(1, "on the way home") + option(0, "")));
  EXPECT_EQ(blocks[1].type, 1U);
  EXPECT_EQ(numberAt(blocks[1].body, 0), 101U);
  EXPECT_THAT(blocks[1].body, EndsWith(option(2, "utun3") + option(9, "\x09") + option(0, "")));
  EXPECT_EQ(blocks[2].type, 6U);
  const std::uint64_t stamp = std::uint64_t{numberAt(blocks[2].body, 4)} << 32 | numberAt(blocks[2].body, 8);
  EXPECT_EQ(stamp, 1'700'000'000'123'456'789U);
  EXPECT_EQ(numberAt(blocks[2].body, 12), 5U);
  EXPECT_EQ(blocks[2].body.substr(20),
            std::string("hello\0\0\0", 8) + option(1, "the first one") + option(0, ""));
  EXPECT_EQ(blocks[3].body.substr(20), "four");
}

TEST_F(WriterTest, WithoutNamesAndCommentsThereAreNoOptionsForThem) {
  Writer writer = open(Format::Pcapng);
  EXPECT_EQ(blocksOf(readFile(path))[0].body.size(), 16U);
  Writer empty((dir / "empty").c_str(), {.format = Format::Pcapng, .interfaceName = "", .comment = ""});
  EXPECT_EQ(readFile(dir / "empty"), readFile(path));
}

TEST_F(WriterTest, WithoutATimeItIsNow) {
  const ScriptedClock clock(1'234'567'890, 987'654'321);
  Writer writer = open();
  EXPECT_EQ(writer.write(packetOf("now")), 0);
  EXPECT_EQ(PcapFile::parse(readFile(path)).records[0].seconds, 1'234'567'890U);
  EXPECT_EQ(ScriptedClock::lastRead(), CLOCK_REALTIME);
}

TEST_F(WriterTest, AClockThatCannotBeReadIsAnErrorAndNothingIsWritten) {
  Writer writer = open();
  ScriptedClock clock(0, 0);
  clock.fail(EINVAL);
  const auto raised = raisedBy([&] { writer.write(packetOf("now")); });
  EXPECT_EQ(raised.type, "kes::OsError");
  EXPECT_EQ(raised.errnum, EINVAL);
  EXPECT_TRUE(PcapFile::parse(readFile(path)).records.empty());
}

TEST_F(WriterTest, TheLengthOnTheWireAndWhatReadersRefuseAreKept) {
  Writer writer = open();
  Packet cut = packetOf("cut");
  cut.wireLength = 1500;
  EXPECT_EQ(writer.write(cut), 0);
  EXPECT_EQ(writer.write(packetOf(std::string(300'000, 'x'))), 0);
  const PcapFile file = PcapFile::parse(readFile(path));
  EXPECT_EQ(file.records[0].wireLength, 1500U);
  EXPECT_EQ(file.records[1].wireLength, 300'000U);
  EXPECT_EQ(file.records[1].bytes.size(), 262'144U);
  EXPECT_EQ(writer.totals().bytes, 262'147U);
}

TEST_F(WriterTest, APacketOutOfItsRangeIsLostForEinval) {
  Writer writer = open();
  EXPECT_EQ(writer.write({.data = nullptr, .length = 1}), EINVAL);
  for (const timespec& wrong :
       {timespec{-1, 0}, timespec{0, -1}, timespec{0, 1'000'000'000}, timespec{0x1'0000'0000, 0}}) {
    Packet packet = packetOf("x");
    packet.time = &wrong;
    EXPECT_EQ(writer.write(packet), EINVAL);
  }
  const std::string tooLong(65'536, 'c');
  Packet packet = packetOf("x");
  packet.comment = tooLong.c_str();
  EXPECT_EQ(writer.write(packet), EINVAL);
  EXPECT_EQ(writer.totals().lost, 6U);
  EXPECT_EQ(readFile(path).size(), 24U);
}

TEST_F(WriterTest, AWriterThatCannotBeginIsAnErrorWithThePath) {
  EXPECT_EQ(raisedBy([&] { Writer(nullptr, {}); }).errnum, EFAULT);
  auto raised = raisedBy([&] { Writer((dir / "no/capture").c_str(), {}); });
  EXPECT_EQ(raised.type, "kes::FsError");
  EXPECT_EQ(raised.errnum, ENOENT);
  EXPECT_EQ(raised.text, dir / "no/capture");
  raised = raisedBy([&] { Writer(path.c_str(), {.format = Format::Pcapng, .linkType = 65'536}); });
  EXPECT_EQ(raised.errnum, EINVAL);
  const std::string tooLong(65'536, 'n');
  raised =
      raisedBy([&] { Writer(path.c_str(), {.format = Format::Pcapng, .interfaceName = tooLong.c_str()}); });
  EXPECT_EQ(raised.errnum, EINVAL);
  EXPECT_FALSE(test::isThere(path));
  writeFailure = EIO;
  raised = raisedBy([&] { open(); });
  writeFailure = 0;
  EXPECT_EQ(raised.errnum, EIO);
}

TEST_F(WriterTest, TheFileIsCreatedAsTheUmaskSaysEmptiedAndClosedOnExec) {
  test::writeFile(path, "a former, longer content of this file");
  const mode_t before = ::umask(0027);
  const Writer writer = open(), other((dir / "other").c_str(), {});
  ::umask(before);
  EXPECT_EQ(readFile(path).size(), 24U);
  EXPECT_EQ(test::modeOf(dir / "other"), 0640U);
  EXPECT_NE(openFlags & O_CLOEXEC, 0);
}

TEST_F(WriterTest, ALostPacketHasItsErrnoIsCountedAndLeavesTheFileReadable) {
  Writer writer = open();
  EXPECT_EQ(write(writer, "one"), 0);
  for (const int errnum : {ENOSPC, EDQUOT, EIO}) {
    writeFailure = errnum;
    EXPECT_EQ(write(writer, "lost"), errnum);
    mostWritten = 5;  // a part of it is there by then
    writesBeforeIt = 2;
    EXPECT_EQ(write(writer, "lost, too"), errnum);
    writeFailure = 0;
    mostWritten = 0;
  }
  EXPECT_EQ(write(writer, "three"), 0);
  EXPECT_THAT(PcapFile::parse(readFile(path)).packets(), ElementsAre("one", "three"));
  EXPECT_EQ(writer.totals().written, 2U);
  EXPECT_EQ(writer.totals().lost, 6U);
  EXPECT_EQ(writer.totals().bytes, 8U);
}

TEST_F(WriterTest, ARecordThatGoesOutInPartsIsWholeInTheEnd) {
  Writer writer = open(Format::Pcapng);
  mostWritten = 3;
  Packet packet = packetOf("hello");
  packet.comment = "in parts";
  EXPECT_EQ(writer.write(packet), 0);
  mostWritten = 0;
  EXPECT_THAT(blocksOf(readFile(path))[2].body, HasSubstr("in parts"));
}

TEST_F(WriterTest, ADiskThatIsFullLosesPacketsAndThenTakesThemAgain) {
  const auto result = inChild([&] {
    if (!test::mountPrivately(dir.path(), "64k")) return 77;
    Writer writer = open();
    int errnum = 0;
    for (int number = 0; errnum == 0 && number < 100; ++number)
      errnum = write(writer, std::string(1000, 'x'));
    if (errnum != ENOSPC || writer.totals().lost != 1) return 1;
    const PcapFile file = PcapFile::parse(readFile(path));
    if (file.torn != 0 || file.records.size() != writer.totals().written) return 2;
    writer.reset();
    return write(writer, "again") == 0 && writer.totals().written == 1 && writer.totals().lost == 0 ? 0 : 3;
  });
  if (result.exitCode() == 77) GTEST_SKIP() << "may not mount";
  EXPECT_EQ(result.exitCode(), 0) << result.err;
}

TEST_F(WriterTest, ASizeLimitIsAResultWhereItsSignalIsIgnored) {
  const auto result = inChild([&] {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{60, 60};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    Writer writer = open();
    if (write(writer, "one") != 0 || write(writer, std::string(100, 'x')) != EFBIG) return 1;
    return PcapFile::parse(readFile(path)).records.size() == 1 ? 0 : 2;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST_F(WriterTest, WhatIsTornAndCannotBeTakenBackEndsTheCapture) {
  Writer writer = open();
  mostWritten = 5;
  writeFailure = ENOSPC;
  writesBeforeIt = 1;
  truncateFailure = EIO;
  EXPECT_EQ(write(writer, "torn"), ENOSPC);
  mostWritten = 0;
  writeFailure = 0;
  EXPECT_EQ(write(writer, "later"), ENOSPC);
  truncateFailure = 0;
  EXPECT_EQ(readFile(path).size(), 24U + 5U);
  writer.reset();
  EXPECT_EQ(write(writer, "anew"), 0);
  EXPECT_THAT(PcapFile::parse(readFile(path)).packets(), ElementsAre("anew"));
}

TEST_F(WriterTest, ResetStartsAnewInEveryFormat) {
  for (const Format format : {Format::Pcap, Format::NanosecondPcap, Format::Pcapng}) {
    Writer writer = open(format);
    const std::string start = readFile(path);
    EXPECT_EQ(write(writer, "one"), 0);
    writer.reset();
    EXPECT_EQ(readFile(path), start);
    EXPECT_EQ(writer.totals().written, 0U);
    EXPECT_EQ(writer.totals().bytes, 0U);
    EXPECT_EQ(write(writer, "two"), 0);
    EXPECT_THAT(readFile(path), StartsWith(start));
  }
}

TEST_F(WriterTest, AfterAResetThatFailedPacketsAreLostUntilOneSucceeds) {
  Writer writer = open();
  writeFailure = ENOSPC;
  writesBeforeIt = 0;
  EXPECT_EQ(raisedBy([&] { writer.reset(); }).errnum, ENOSPC);
  writeFailure = 0;
  EXPECT_EQ(write(writer, "without a header"), ENOSPC);
  EXPECT_EQ(readFile(path), "");
  writer.reset();
  EXPECT_EQ(write(writer, "anew"), 0);
  EXPECT_THAT(PcapFile::parse(readFile(path)).packets(), ElementsAre("anew"));
}

TEST_F(WriterTest, AClosedWriterKeepsItsTotalsAndTakesNoPackets) {
  Writer writer = open();
  EXPECT_EQ(write(writer, "one"), 0);
  writer.close();
  writer.close();
  EXPECT_EQ(writer.totals().written, 1U);
  EXPECT_EQ(write(writer, "two"), EBADF);
  EXPECT_EQ(writer.totals().lost, 1U);
  EXPECT_EQ(raisedBy([&] { writer.reset(); }).errnum, EBADF);
}

TEST_F(WriterTest, ARefusalToCloseIsAnErrorOnce) {
  Writer writer = open();
  closeFailure = EDQUOT;
  const auto raised = raisedBy([&] { writer.close(); });
  EXPECT_EQ(raised.errnum, EDQUOT);
  EXPECT_EQ(raised.text, path);
  writer.close();
}

TEST_F(WriterTest, AWriterMovesWithItsFile) {
  const auto before = test::openDescriptors();
  {
    Writer writer = open();
    Writer moved = std::move(writer);
    EXPECT_EQ(write(moved, "one"), 0);
    writer = std::move(moved);
    EXPECT_EQ(write(writer, "two"), 0);
  }
  EXPECT_THAT(PcapFile::parse(readFile(path)).packets(), ElementsAre("one", "two"));
  EXPECT_EQ(test::openDescriptors(), before);
}

TEST_F(WriterTest, APipeGetsTheWholeCaptureAndCannotBeReset) {
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  const int reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  Writer writer = open();
  EXPECT_EQ(write(writer, "one"), 0);
  EXPECT_EQ(raisedBy([&] { writer.reset(); }).errnum, EINVAL);
  std::string bytes(1000, '\0');
  bytes.resize(static_cast<std::size_t>(::read(reader, bytes.data(), bytes.size())));
  EXPECT_THAT(PcapFile::parse(bytes).packets(), ElementsAre("one"));
  mostWritten = 5;
  writeFailure = EPIPE;
  writesBeforeIt = 1;
  EXPECT_EQ(write(writer, "torn"), EPIPE);
  writeFailure = 0;
  mostWritten = 0;
  EXPECT_EQ(write(writer, "later"), EPIPE);
  ::close(reader);
}

TEST_F(WriterTest, ASignalDuringAWriteWaitsForTheWholeRecord) {
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGXFSZ}) {
    const auto result = inChild([&] {
      Writer writer = open();
      signalInWrite = number;
      mostWritten = 7;
      write(writer, "whole");
      return 0;
    });
    EXPECT_EQ(result.signal(), number);
    EXPECT_THAT(PcapFile::parse(readFile(path)).packets(), ElementsAre("whole"));
  }
}

TEST_F(WriterTest, ACancellationDuringAWriteWaitsForTheWholeRecord) {
  KES_SKIP_UNDER_SANITIZERS("does not follow the unwinding of a cancelled thread");
  Writer writer = open();
  std::pair<WriterTest*, Writer*> both{this, &writer};
  cancelledInWrite = true;
  mostWritten = 7;
  pthread_t thread;
  ASSERT_EQ(::pthread_create(
                &thread, nullptr,
                [](void* argument) -> void* {
                  const auto& [test, used] = *static_cast<std::pair<WriterTest*, Writer*>*>(argument);
                  test->write(*used, "whole");
                  ::pthread_testcancel();
                  return nullptr;
                },
                &both),
            0);
  void* result = nullptr;
  ::pthread_join(thread, &result);
  cancelledInWrite = false;
  mostWritten = 0;
  EXPECT_EQ(result, PTHREAD_CANCELED);
  EXPECT_EQ(write(writer, "next"), 0);
  EXPECT_THAT(PcapFile::parse(readFile(path)).packets(), ElementsAre("whole", "next"));
}

TEST_F(WriterTest, AForkedChildWritesNothingTwice) {
  Writer writer = open();
  EXPECT_EQ(write(writer, "parent"), 0);
  EXPECT_EQ(inChild([&] { return write(writer, "child"); }).exitCode(), 0);
  EXPECT_EQ(write(writer, "parent again"), 0);
  EXPECT_THAT(PcapFile::parse(readFile(path)).packets(), ElementsAre("parent", "child", "parent again"));
}

TEST_F(WriterTest, WithoutMemoryAPacketIsWholeOrNotThere) {
  Writer writer = open(Format::Pcapng);
  Packet packet = packetOf("hello");
  packet.comment = "a comment that is longer than what a string keeps within itself";
  EXPECT_GT(test::starve([&] { writer.write(packet); }), 0U);
  EXPECT_EQ(blocksOf(readFile(path)).size(), 3U);
  EXPECT_EQ(writer.totals().written, 1U);
  EXPECT_EQ(writer.totals().lost, 0U);
}

}  // namespace
}  // namespace kes::pcap
