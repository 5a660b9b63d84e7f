#include <signal.h>

#include <chrono>
#include <cstring>
#include <ctime>

#include "Toolbar.h"
#include "extcap/ExtcapFixture.h"

namespace kes::test {
namespace {

using sys::Descriptor;
using testing::HasSubstr;

std::string firstWord(const std::string& bytes) {
  std::uint32_t word = 0;
  std::memcpy(&word, bytes.data(), sizeof word);
  char text[16];
  std::snprintf(text, sizeof text, "%08x", word);
  return text;
}

class ExtcapCaptureTest : public ExtcapTest {};

TEST_F(ExtcapCaptureTest, AThousandPacketsArriveByteForByteAndInOrder) {
  // Not without an end: a file that grows faster than it is read cannot be looked at.
  playSample(repeated(12));
  const auto begin = std::time(nullptr);
  Process program(capturing(dir_ / "file"));
  ASSERT_TRUE(waitForPackets("file", 1027));
  program.signal(SIGTERM);
  EXPECT_EQ(program.wait(), 0) << program.err();
  EXPECT_EQ(program.err(), "");
  const PcapFile file = captured("file");
  EXPECT_EQ(file.torn, 0U);
  EXPECT_EQ(file.linkType, 1U);
  EXPECT_EQ(file.packets(), sample(1027));
  EXPECT_EQ(firstWord(readFile(dir_ / "file")), "a1b23c4d") << "nanoseconds";
  std::uint64_t last = 0;
  bool isFine = false;
  for (const PcapRecord& record : file.records) {
    const std::uint64_t time = record.seconds * 1'000'000'000ULL + record.microseconds;
    EXPECT_GE(time, last);
    isFine = isFine || record.microseconds % 1000 != 0;
    last = time;
  }
  EXPECT_TRUE(isFine) << "no stamp has more than microseconds";
  EXPECT_GE(file.records.front().seconds, static_cast<std::uint64_t>(begin));
  EXPECT_LE(file.records.back().seconds, static_cast<std::uint64_t>(std::time(nullptr)));
}

TEST_F(ExtcapCaptureTest, ThePipeEndsWithTheCapture) {
  playSample();
  const std::string pipe = makePipe("pipe");
  Process reader({"cat", pipe});
  Process program(capturing(pipe));
  ASSERT_TRUE(waitForRequests("packet", sample(79).size() + 1));
  program.signal(SIGINT);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(reader.wait(), 0);
  EXPECT_EQ(PcapFile::parse(reader.out()).packets(), sample(79));
}

TEST_F(ExtcapCaptureTest, AReaderThatGoesAwayEndsItWhilePacketsCome) {
  playSample({"--loop"});
  const std::string pipe = makePipe("pipe");
  Process reader({"head", "-c", "100000", pipe}, {.out = Process::nothing});
  Process program(capturing(pipe));
  EXPECT_EQ(program.wait(), 0) << program.err();
  EXPECT_EQ(program.err(), "");
}

TEST_F(ExtcapCaptureTest, AReaderThatGoesAwayEndsItWhileNoneCome) {
  play("");
  const std::string pipe = makePipe("pipe");
  Process reader({"cat", pipe});
  Process program(capturing(pipe));
  ASSERT_TRUE(waitForRequests("packet", 3));
  reader.signal(SIGKILL);
  EXPECT_EQ(program.wait(), 0) << program.err();
}

TEST_F(ExtcapCaptureTest, AReaderThatTakesNothingDoesNotKeepItFromEnding) {
  playSample({"--loop"});
  const std::string pipe = makePipe("pipe");
  const Descriptor reader(::open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  Process program(capturing(pipe));
  // The pipe is full when requests stop coming.
  std::size_t requests = 0;
  ASSERT_TRUE(waitForRequests("packet", 10));
  ASSERT_TRUE(eventually([&] {
    const std::size_t before = requests;
    ::usleep(50'000);
    return (requests = count("packet")) == before;
  }));
  program.signal(SIGTERM);
  EXPECT_EQ(program.wait(), -SIGALRM);
}

TEST_F(ExtcapCaptureTest, ASignalThatIsIgnoredDoesNotEndIt) {
  playSample({"--loop", "--rate", "100"});
  Process program(
      {"sh", "-c", "trap '' HUP; exec \"$0\" --capture --fifo " + dir_ / "file", extcapProgram()});
  ASSERT_TRUE(waitForPackets("file", 5));
  program.signal(SIGHUP);
  EXPECT_TRUE(waitForPackets("file", captured("file").records.size() + 5)) << "as under nohup";
  program.signal(SIGTERM);
  EXPECT_EQ(program.wait(), 0);
}

TEST_F(ExtcapCaptureTest, ADriverThatDiesEndsItWithAWordAndLeavesTheFileWhole) {
  play("packet bytes 41414141 x5\npacket die\n");
  Process program(capturing(dir_ / "file"));
  EXPECT_EQ(program.wait(), 1);
  EXPECT_EQ(program.err(), "kestrace-extcap: the VPN driver was unloaded (0x10000003)\n");
  EXPECT_EQ(captured("file").packets(), std::vector<std::string>(5, "AAAA"));
  EXPECT_EQ(captured("file").torn, 0U);
}

TEST_F(ExtcapCaptureTest, NoDriverIsSaid) {
  const TempDir nobody;
  Process program(capturing(dir_ / "file"), {.environment = {"KES_IOREGISTRY=" + nobody.path()}});
  EXPECT_EQ(program.wait(), 1);
  EXPECT_EQ(program.err(), "kestrace-extcap: no VPN driver is loaded (kes_vpn_driver_keslbmac)\n");
}

TEST_F(ExtcapCaptureTest, AMissingPermissionIsSaid) {
  play("service return kIOReturnNotPrivileged\nopen return kIOReturnNotPermitted\n");
  for (const char* code : {"0xe00002c1", "0xe00002e2"}) {
    Process program(capturing(dir_ / "file"));
    EXPECT_EQ(program.wait(), 1);
    EXPECT_THAT(program.err(), HasSubstr("you may not open the VPN driver (" + std::string(code) + ")"));
  }
}

TEST_F(ExtcapCaptureTest, ASecondCaptureIsRefusedAsTheDriverDoes) {
  play("open return 0\nopen return kIOReturnExclusiveAccess\nopen return kIOReturnError\n");
  Process first(capturing(dir_ / "first"));
  ASSERT_TRUE(waitForRequests("open", 1));
  Process second(capturing(dir_ / "second"));
  EXPECT_EQ(second.wait(), 1);
  EXPECT_THAT(second.err(), HasSubstr("another program has the VPN driver (0xe00002c5)"));
  Process third(capturing(dir_ / "third"));
  EXPECT_EQ(third.wait(), 1);
  EXPECT_THAT(third.err(), HasSubstr("refused the connection (0xe00002bc)"));
  first.signal(SIGTERM);
  EXPECT_EQ(first.wait(), 0);
}

TEST_F(ExtcapCaptureTest, LevelsAreSetFirst) {
  play("");
  Process program(capturing(dir_ / "file", {"--driver-level", "3", "--oid-level", "258"}));
  ASSERT_TRUE(driver().waitForOutput("structure=0e0002000a000001030000000201"));
  ASSERT_TRUE(driver().waitForOutput("closed: by the client")) << "the trace is left to others";
  ASSERT_TRUE(waitForRequests("packet", 1));
  program.signal(SIGTERM);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(program.err(), "");
}

TEST_F(ExtcapCaptureTest, RefusedLevelsAreSaidAndTheCaptureGoesOn) {
  play("levels return kIOReturnError\n");
  Process program(capturing(dir_ / "file", {"--driver-level", "3"}));
  ASSERT_TRUE(waitForRequests("packet", 1));
  program.signal(SIGTERM);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(program.err(), "kestrace-extcap: the debug levels were not set: 0xe00002bc\n");
}

TEST_F(ExtcapCaptureTest, PacketsThatDoNotFitAReplyAreCountedAsLost) {
  play(
      "packet bytes 41 x2\npacket return kIOReturnNoSpace x3\npacket return kIOReturnTimeout\npacket count "
      "4096\n");
  Process program(capturing(dir_ / "file"));
  ASSERT_TRUE(waitForPackets("file", 3));
  program.signal(SIGTERM);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_THAT(program.err(), HasSubstr("3 packets of 4098 bytes taken, 3 lost as too long, 1 perhaps cut; "));
  EXPECT_THAT(program.err(), HasSubstr(" 1 failed; "));
}

TEST_F(ExtcapCaptureTest, TotalsAreToldWhenTheyAreWanted) {
  playSample();
  Process program(capturing(dir_ / "file", {"--totals"}));
  ASSERT_TRUE(waitForPackets("file", 79));
  program.signal(SIGTERM);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_THAT(program.err(), testing::StartsWith("kestrace-extcap: 79 packets of "));
}

TEST_F(ExtcapCaptureTest, AFullDiskIsSaid) {
  playSample();
  Process program({"sh", "-c", "ulimit -S -f 1; trap '' XFSZ; exec \"$0\" --capture --fifo " + dir_ / "file",
                   extcapProgram()});
  EXPECT_EQ(program.wait(), 1);
  EXPECT_THAT(program.err(), HasSubstr("File too large"));
  EXPECT_EQ(captured("file").torn, 0U);
}

TEST_F(ExtcapCaptureTest, AnIdleDriverIsAskedAHundredTimesASecondAtMost) {
  play("");
  const auto begin = std::chrono::steady_clock::now();
  Process program(capturing(dir_ / "file"));
  ASSERT_TRUE(waitForRequests("packet", 50));
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
  // The first sleeps are shorter: 1, 2, 4 and 8 ms.
  EXPECT_LE(static_cast<double>(count("packet")), taken.count() * 100 + 5);
  program.signal(SIGTERM);
  program.wait();
}

TEST_F(ExtcapCaptureTest, TenTimesAsManyPacketsAsTheToolCanTakeAreTakenWithoutALoss) {
  playSample({"--loop", "--rate", "1000"});
  Process program(capturing(dir_ / "file"));
  ASSERT_TRUE(waitForPackets("file", 2000));
  program.signal(SIGTERM);
  EXPECT_EQ(program.wait(), 0);
  driver().stop();
  EXPECT_THAT(driver().output(), HasSubstr(" 0 dropped, "));
}

/// The window's ends of the toolbar's pipes.
class ExtcapWindowTest : public ExtcapTest {
 protected:
  std::vector<std::string> withToolbar(std::vector<std::string> more = {}) {
    makePipe("in");
    makePipe("out");
    window_.reset(::open((dir_ / "out").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    more.insert(more.end(), {"--extcap-control-in", dir_ / "in", "--extcap-control-out", dir_ / "out"});
    return capturing(dir_ / "file", more);
  }

  void turn(unsigned char control, const std::string& value) {
    if (!knob_) knob_.reset(::open((dir_ / "in").c_str(), O_WRONLY | O_CLOEXEC));
    const std::string bytes = extcap::encode({control, extcap::Set, value});
    ASSERT_EQ(::write(knob_.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }

  /// Waits for a message of this kind whose text has this part.
  bool waitForMessage(unsigned char control, unsigned char command, const std::string& part) {
    return eventually([&] {
      char bytes[65536];
      const ssize_t got = ::read(window_.get(), bytes, sizeof bytes);
      if (got > 0) unread_.append(bytes, static_cast<std::size_t>(got));
      while (const auto message = extcap::takeMessage(unread_)) {
        if (message->control == control && message->command == command &&
            message->payload.find(part) != std::string::npos)
          return true;
      }
      return false;
    });
  }

 private:
  Descriptor window_, knob_;
  std::string unread_;
};

TEST_F(ExtcapWindowTest, AControlChangesALevelWhileItCaptures) {
  playSample({"--loop", "--rate", "100"});
  Process program(withToolbar());
  ASSERT_TRUE(waitForRequests("packet", 1));
  turn(1, "2");
  ASSERT_TRUE(driver().waitForOutput("structure=0e0002000a0000010000020000"));
  turn(0, "7");
  ASSERT_TRUE(driver().waitForOutput("structure=0e0002000a0000010700020000"));
  turn(2, "much");
  EXPECT_TRUE(waitForMessage(0, extcap::Set, "7"));
  program.signal(SIGTERM);
  EXPECT_EQ(program.wait(), 0) << program.err();
  EXPECT_EQ(count("levels"), 2U) << "what is no level is none";
  const auto packets = captured("file").packets();
  EXPECT_EQ(packets, sample(packets.size()));
}

TEST_F(ExtcapWindowTest, TheTraceOfTheDriverComesIntoTheLog) {
  play("trace text \"link up\\n\"\ntrace text \"link down\\n\"\n");
  Process program(withToolbar({"--driver-level", "1"}));
  EXPECT_TRUE(waitForMessage(3, extcap::Add, "link up\n"));
  EXPECT_TRUE(waitForMessage(3, extcap::Add, "link down\n"));
  program.signal(SIGTERM);
  EXPECT_EQ(program.wait(), 0) << program.err();
}

TEST_F(ExtcapWindowTest, LossesAreSaidInTheStatusLineAndTotalsAtTheEnd) {
  play("packet return kIOReturnNoSpace\n");
  Process program(withToolbar());
  EXPECT_TRUE(waitForMessage(255, extcap::StatusMessage, "1 packets lost: too long for a reply"));
  program.signal(SIGTERM);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_TRUE(waitForMessage(255, extcap::StatusMessage, "0 packets of 0 bytes taken"));
}

TEST_F(ExtcapWindowTest, ADriverThatRefusesTheLevelsIsToldOfInAWindow) {
  play("open return 0\nopen return kIOReturnBusy\n");
  Process program(withToolbar({"--driver-level", "1"}));
  EXPECT_TRUE(waitForMessage(255, extcap::WarningMessage, "another program has the VPN driver (0xe00002d5)"));
  program.signal(SIGTERM);
  EXPECT_EQ(program.wait(), 0);
}

}  // namespace
}  // namespace kes::test
