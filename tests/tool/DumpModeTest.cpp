#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/PcapFile.h"
#include "tool/ToolFixture.h"

namespace kes::test {
namespace {

/// The dump mode, its keyboard being a pipe.
class DumpModeTest : public ToolTest {
 protected:
  Process start() { return start({"-dump", file_}); }
  Process start(std::vector<std::string> arguments, Process::Setup setup = {}) {
    if (setup.in == Process::nothing) setup.in = keyboard_.reader;
    return Process(kestrace(std::move(arguments)), setup);
  }

  void press(const std::string& keys) const { keyboard_.write(keys); }
  PcapFile capture() const { return PcapFile::parse(readFile(file_)); }

  TestPipe keyboard_;
  const std::string file_ = dir_ / "capture.pcap";
};

const std::string opened = std::string(deviceFound) + "connection open, type =2\n";
const std::string running = opened + "quit writing dump file with 'Q'\n";

/// What the script's "count N" sends.
std::string counting(std::size_t length) {
  std::string bytes(length, '\0');
  for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>(i);
  return bytes;
}

TEST_F(DumpModeTest, PrintsItsMessagesAnnouncesEachPacketAndEndsWithQ) {
  play("packet bytes 010203\npacket bytes 0a0b0c0d\n");
  Process tool = start();
  ASSERT_TRUE(tool.waitForErr("len =4\n"));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.out(), running);
  EXPECT_EQ(tool.err(), "GetPacket ok len =3\nGetPacket ok len =4\n");
  EXPECT_EQ(capture().linkType, 1U);
  EXPECT_EQ(capture().snapshotLength, 65535U);
  EXPECT_EQ(capture().packets(), (std::vector<std::string>{"\x01\x02\x03", "\x0a\x0b\x0c\x0d"}));
}

TEST_F(DumpModeTest, EveryRecordArrivesByteForByteWithTheCapacityAnew) {
  play("packet bytes 010203\n");
  Process tool = start();
  ASSERT_TRUE(waitForRequests("packet", 3));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  const std::string log = driver().output();
  EXPECT_NE(log.find("request open sequence=2 selector=0 scalars=2 structure= scalar-capacity=0 "
                     "structure-capacity=0\n"),
            log.npos);
  std::size_t offers = 0;
  const std::string call = " selector=2 scalars= structure= scalar-capacity=0 structure-capacity=4096\n";
  for (std::size_t at = 0; (at = log.find(call, at)) != log.npos; ++at) ++offers;
  EXPECT_EQ(offers, count("packet"));
  EXPECT_EQ(count("levels"), 0U);
}

TEST_F(DumpModeTest, PacketsOfEveryBorderLengthAreTreatedAsTheirRulesSay) {
  play(
      "packet count 1\npacket count 2\npacket count 3\npacket count 4095\npacket count 4096\npacket count "
      "4097\n"
      "packet count 5\n");
  Process tool = start();
  ASSERT_TRUE(tool.waitForErr("len =5\n"));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.err(),
            "GetPacket ok len =1\nGetPacket ok len =2\nGetPacket ok len =3\nGetPacket ok len =4095\n"
            "GetPacket ok len =4096\nGetPacket failed: ret=0xe00002db.\n\nGetPacket ok len =5\n");
  EXPECT_EQ(capture().packets(), (std::vector{counting(3), counting(4095), counting(4096), counting(5)}));
}

TEST_F(DumpModeTest, TheRecordsCarryTheTimeOfTheirArrival) {
  play("packet count 60\n");
  const time_t before = ::time(nullptr);
  Process tool = start();
  ASSERT_TRUE(tool.waitForErr("len =60\n"));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  const PcapRecord record = capture().records.at(0);
  EXPECT_GE(record.seconds, static_cast<std::uint32_t>(before));
  EXPECT_LE(record.seconds, static_cast<std::uint32_t>(::time(nullptr)) + 1);
  EXPECT_LT(record.microseconds, 1'000'000U);
  EXPECT_EQ(record.wireLength, 60U);
}

TEST_F(DumpModeTest, TheFileHoldsItsHeaderBeforeTheFirstPacketAndGrowsByEachRecord) {
  play("packet count 0 x1\n");
  Process tool = start();
  ASSERT_TRUE(waitForRequests("packet", 2));
  EXPECT_EQ(readFile(file_).size(), 24U);
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.err(), "");
}

TEST_F(DumpModeTest, QBeforeTheFirstTurnLeavesTheDriverAlone) {
  play("");
  press("Q");
  Process tool = start();
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.out(), running);
  EXPECT_EQ(requests(), (std::vector<std::string>{"service", "open"}));
  EXPECT_EQ(readFile(file_).size(), 24U);
}

TEST_F(DumpModeTest, OneKeyIsTakenPerTurn) {
  play("");
  press("qqqQ");
  Process tool = start();
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(count("packet"), 3U);
}

TEST_F(DumpModeTest, ASecondRunStartsTheFileAfresh) {
  for (const char* bytes : {"010203", "040506"}) {
    play(std::string("packet bytes ") + bytes + '\n');
    Process tool = start();
    ASSERT_TRUE(tool.waitForErr("len =3\n"));
    press("Q");
    EXPECT_EQ(tool.wait(), 0);
  }
  EXPECT_EQ(capture().packets(), std::vector<std::string>{"\x04\x05\x06"});
}

TEST_F(DumpModeTest, AFileEmptiedBetweenPacketsGetsANewHeader) {
  play("packet bytes 010203\npacket delay 1500 bytes 040506\n");
  Process tool = start();
  ASSERT_TRUE(tool.waitForErr("len =3\n"));
  ASSERT_TRUE(waitForRequests("packet", 2));
  ASSERT_EQ(::truncate(file_.c_str(), 0), 0);
  ASSERT_TRUE(tool.waitForErr("len =3\nGetPacket ok len =3\n"));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(capture().packets(), std::vector<std::string>{"\x04\x05\x06"});
}

TEST_F(DumpModeTest, ANameWithAConversionHoldsTheTypesName) {
  play("");
  press("Q");
  Process tool = start({"-dump", dir_ / "cap_%s.pcap"});
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(readFile(dir_ / "cap_eth.pcap").size(), 24U);
}

TEST_F(DumpModeTest, AnOptionBehindDumpIsTheName) {
  play("");
  press("Q");
  Process tool({"sh", "-c", "cd " + dir_.path() + " && exec \"$0\" -dump -trace", KESTRACE},
               {.in = keyboard_.reader});
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.out(), running);
  EXPECT_EQ(readFile(dir_ / "-trace").size(), 24U);
}

TEST_F(DumpModeTest, WithoutANameWritesTheDefaultFile) {
  play("packet bytes 010203\n");
  // A root directory of the test's own, with what a program needs.
  const std::string script =
      "set -e; cd \"$1\"; mkdir usr bin dev proc registry;"
      "for d in usr dev proc; do mount --bind /$d $d; done;"
      "mount --bind \"$(dirname \"$2\")\" bin; mount --bind \"$KES_IOREGISTRY\" registry;"
      "for l in lib lib64; do ln -s usr/$l $l; done;"
      "shift 2; KES_IOREGISTRY=/registry exec chroot . /bin/kestrace \"$@\"";
  if (Process({"unshare", "-m", "true"}).wait() != 0) {
    GTEST_SKIP() << "a root directory of the test's own is not permitted here";
  }
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{"-dump"}, {"-dump", ""}}) {
    const TempDir root;
    play("packet bytes 010203\n");
    std::vector<std::string> command = {"unshare", "-m", "sh", "-c", script, "sh", root.path(), KESTRACE};
    command.insert(command.end(), arguments.begin(), arguments.end());
    Process tool(command, {.in = keyboard_.reader});
    EXPECT_TRUE(tool.waitForErr("len =3\n")) << tool.err();
    press("Q");
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_EQ(PcapFile::parse(readFile(root / "kes_dump_eth.pcap")).packets().size(), 1U);
  }
}

TEST_F(DumpModeTest, AFileThatCannotBeMadeIsSaidAndTheExitCodeIsZero) {
  play("");
  const std::string name = dir_ / "no/such/folder/%s";
  Process tool = start({"-dump", name});
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.out(), opened + "failed to open file " + name + '\n');
  EXPECT_EQ(tool.err(), "");
  EXPECT_EQ(count("packet"), 0U);
}

TEST_F(DumpModeTest, ANameThatDoesNotFitIsSaidInFull) {
  play("");
  const std::string name = dir_ / std::string(1100, 'n');
  Process tool = start({"-dump", name});
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.out(), opened + "failed to open file " + name + '\n');
}

TEST_F(DumpModeTest, ANameThatDoesNotFitIsRefusedHoweverShortItsExpansion) {
  play("");
  std::string name = dir_ / "short";
  while (name.size() < 1024) name += "%1$.0s";
  Process tool = start({"-dump", name});
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.out(), opened + "failed to open file " + name + '\n');
  EXPECT_NE(::access((dir_ / "short").c_str(), F_OK), 0);
}

TEST_F(DumpModeTest, AtAFileSizeLimitItRunsOnAndTheFileParses) {
  play("packet count 4096 x10\npacket count 60\n");
  Process tool({"sh", "-c", "ulimit -S -f 16; exec \"$0\" -dump \"$1\"", kestrace({})[0], file_},
               {.in = keyboard_.reader});
  ASSERT_TRUE(tool.waitForErr("len =60\n")) << tool.err();
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(capture().packets(), (std::vector{counting(4096), counting(60)}));
  EXPECT_EQ(capture().torn, 0U);
}

TEST_F(DumpModeTest, ACaptureThatFailsLaterLosesPacketsSilentlyAndGoesOn) {
  const std::string folder = dir_ / "folder";
  ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
  play("packet bytes 010203\npacket delay 1000 bytes 040506\npacket delay 1000 bytes 070809\n");
  Process tool = start({"-dump", folder + "/file"});
  ASSERT_TRUE(waitForRequests("packet", 2));
  ASSERT_EQ(::rename(folder.c_str(), (dir_ / "moved").c_str()), 0);
  ASSERT_TRUE(waitForRequests("packet", 3));
  ASSERT_EQ(::rename((dir_ / "moved").c_str(), folder.c_str()), 0);
  const std::string announced = "GetPacket ok len =3\n";
  ASSERT_TRUE(tool.waitForErr(announced + announced + announced));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.err(), announced + announced + announced);
  EXPECT_EQ(PcapFile::parse(readFile(folder + "/file")).packets(),
            (std::vector<std::string>{"\x01\x02\x03", "\x07\x08\x09"}));
}

TEST_F(DumpModeTest, WithoutADriverSaysSoAndExitsWithOne) {
  Process tool(kestrace({"-dump", file_}), {.environment = {"KES_IOREGISTRY=" + dir_.path()}});
  EXPECT_EQ(tool.wait(), 1);
  EXPECT_EQ(tool.out(), "");
  EXPECT_EQ(tool.err(), "IOServiceGetMatchingService didn't find a matching driver\n");
  EXPECT_NE(::access(file_.c_str(), F_OK), 0) << "a capture was made without a driver";
}

TEST_F(DumpModeTest, ARefusedOpenCallExitsWithOne) {
  play("open return 0xe00002c5\n");
  Process tool = start();
  EXPECT_EQ(tool.wait(), 1);
  EXPECT_EQ(tool.out(), deviceFound);
  EXPECT_EQ(tool.err(), "kKesLbUserClientOpen returned 0xe00002c5.\n\n");
}

TEST_F(DumpModeTest, ACallThatFailsIsSaidEachTurnAndTheDumpGoesOn) {
  play("packet return 0xe00002bc x3\npacket bytes 010203\n");
  Process tool = start();
  ASSERT_TRUE(tool.waitForErr("len =3\n"));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  const std::string failure = "GetPacket failed: ret=0xe00002bc.\n\n";
  EXPECT_EQ(tool.err(), failure + failure + failure + "GetPacket ok len =3\n");
}

TEST_F(DumpModeTest, AVanishedDriverIsSaidEachTurnAndQStillEnds) {
  play("packet bytes 010203 then-die\n");
  Process tool = start();
  const std::string failure = "GetPacket failed: ret=0x10000003.\n\n";
  ASSERT_TRUE(tool.waitForErr(failure + failure + failure));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(capture().packets(), std::vector<std::string>{"\x01\x02\x03"});
}

TEST_F(DumpModeTest, SigtermAndSigintKillItBetweenCallsAndInACall) {
  for (const char* script : {"", "packet delay 60000 count 3\n"}) {
    for (int number : {SIGTERM, SIGINT}) {
      play(script);
      Process tool = start();
      ASSERT_TRUE(waitForRequests("packet", 1));
      tool.signal(number);
      EXPECT_EQ(tool.wait(), -number);
      EXPECT_EQ(tool.out(), running) << "text was held back in a buffer";
      EXPECT_EQ(capture().torn, 0U);
    }
  }
}

TEST_F(DumpModeTest, RunsOnWithoutStandardInput) {
  play("packet bytes 010203\n");
  Process tool(kestrace({"-dump", file_}), {.in = Process::closed});
  ASSERT_TRUE(tool.waitForErr("len =3\n"));
  ASSERT_TRUE(waitForRequests("packet", 5));
  tool.signal(SIGTERM);
  EXPECT_EQ(tool.wait(), -SIGTERM);
  EXPECT_EQ(capture().packets().size(), 1U);
}

TEST_F(DumpModeTest, RunsOnWithoutAnyStandardStream) {
  play("packet bytes 010203\n");
  Process tool(kestrace({"-dump", file_}),
               {.in = Process::closed, .out = Process::closed, .err = Process::closed});
  ASSERT_TRUE(waitForRequests("packet", 5));
  tool.signal(SIGTERM);
  EXPECT_EQ(tool.wait(), -SIGTERM);
  EXPECT_EQ(readFile(file_).size(), 24U + 16 + 3) << "a message went into the capture";
}

TEST_F(DumpModeTest, RunsOnAtTheEndOfStandardInput) {
  play("");
  Process tool(kestrace({"-dump", file_}), {.in = Process::nothing});
  ASSERT_TRUE(waitForRequests("packet", 10));
  tool.signal(SIGTERM);
  EXPECT_EQ(tool.wait(), -SIGTERM);
}

TEST_F(DumpModeTest, AReaderThatHasGoneDoesNotEndIt) {
  play("packet bytes 010203\n");
  TestPipe output;
  output.closeReader();
  Process tool =
      start({"-dump", file_}, {.in = keyboard_.reader, .out = output.writer, .err = output.writer});
  ASSERT_TRUE(waitForRequests("packet", 5));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(capture().packets().size(), 1U);
}

TEST_F(DumpModeTest, ASlowAnswerIsWaitedFor) {
  play("packet delay 2500 bytes 010203\n");
  Process tool = start();
  ASSERT_TRUE(tool.waitForErr("len =3\n"));
  press("Q");
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(tool.err(), "GetPacket ok len =3\n");
}

TEST_F(DumpModeTest, KilledAtAnyMomentItLeavesAFileThatParses) {
  play("packet count 4096 forever\n");
  Process tool = start();
  for (std::size_t wanted : {3U, 20U, 41U}) {
    ASSERT_TRUE(waitForRequests("packet", wanted));
    EXPECT_LE(capture().torn, 4112U);
  }
  tool.signal(SIGKILL);
  EXPECT_EQ(tool.wait(), -SIGKILL);
  EXPECT_TRUE(capture().hasHeader);
  for (const std::string& packet : capture().packets()) EXPECT_EQ(packet, counting(4096));
}

}  // namespace
}  // namespace kes::test
