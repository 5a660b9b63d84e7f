#include <signal.h>

#include "extcap/ExtcapFixture.h"

// The analyser itself, as it finds, asks, starts and ends the program.

namespace kes::test {
namespace {

using testing::HasSubstr;

class TsharkTest : public ExtcapTest {
 protected:
  TsharkTest() {
    Process program(extcap({"--install-for-user"}), {.environment = environment()});
    EXPECT_EQ(program.wait(), 0) << program.err();
  }

  std::vector<std::string> environment() const {
    return {"HOME=" + home_.path(), "XDG_CONFIG_HOME=", "TMPDIR=" + home_.path()};
  }

  std::unique_ptr<Process> tshark(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "tshark");
    return std::make_unique<Process>(arguments, Process::Setup{.environment = environment()});
  }

  /// What tshark reads out of a capture: the bytes of its packets.
  static std::vector<std::string> packetsOf(const std::string& file) {
    Process converter({"tshark", "-F", "pcap", "-r", file, "-w", file + ".pcap"});
    EXPECT_EQ(converter.wait(), 0) << converter.err();
    return PcapFile::parse(readFile(file + ".pcap")).packets();
  }

  TempDir home_;
};

TEST_F(TsharkTest, TheDriverIsInItsMenuWithItsLinkType) {
  const auto menu = tshark({"-D"});
  EXPECT_EQ(menu->wait(), 0);
  EXPECT_THAT(menu->out(), HasSubstr("kes_vpn (VPN driver)"));
  const auto types = tshark({"-i", "kes_vpn", "-L"});
  EXPECT_EQ(types->wait(), 0);
  EXPECT_THAT(types->out() + types->err(), HasSubstr("EN10MB (Ethernet)"));
}

TEST_F(TsharkTest, AThousandPacketsArriveByteForByteAndInOrder) {
  playSample({"--loop"});
  const auto analyser = tshark({"-i", "kes_vpn", "-c", "1000", "-w", dir_ / "capture"});
  EXPECT_EQ(analyser->wait(), 0) << analyser->err();
  const auto packets = packetsOf(dir_ / "capture");
  ASSERT_GE(packets.size(), 1000U);
  EXPECT_EQ(packets, sample(packets.size()));
  EXPECT_THAT(analyser->err(), testing::Not(HasSubstr("Error by extcap")));
  Process times({"tshark", "-r", dir_ / "capture", "-c", "20", "-T", "fields", "-e", "frame.time_epoch"});
  ASSERT_EQ(times.wait(), 0);
  EXPECT_THAT(times.out(), testing::ContainsRegex("\\.[0-9]{6}([0-9]{2}[1-9]|[0-9][1-9]0|[1-9]00)\n"))
      << "nanoseconds";
}

TEST_F(TsharkTest, ItStopsTheCapture) {
  playSample();
  const auto analyser = tshark({"-i", "kes_vpn", "-l"});
  ASSERT_TRUE(analyser->waitForOut("Echo (ping) request")) << analyser->err();
  ASSERT_TRUE(waitForRequests("packet", 80));
  analyser->signal(SIGINT);
  EXPECT_EQ(analyser->wait(), 0) << analyser->err();
  EXPECT_TRUE(driver().waitForOutput("closed: by the client")) << "the program has ended";
  EXPECT_THAT(analyser->err(), testing::Not(HasSubstr("Error by extcap")));
}

TEST_F(TsharkTest, ItsDeathEndsTheCapture) {
  playSample({"--loop", "--rate", "50"});
  const auto analyser = tshark({"-i", "kes_vpn", "-l"});
  ASSERT_TRUE(analyser->waitForOut("Echo (ping) request")) << analyser->err();
  Process({"pkill", "-KILL", "-P", std::to_string(analyser->pid()), "dumpcap"}).wait();
  analyser->signal(SIGKILL);
  EXPECT_TRUE(driver().waitForOutput("closed: by the client"));
}

TEST_F(TsharkTest, ItTellsOfADriverThatIsNotThere) {
  const TempDir nobody;
  ::setenv("KES_IOREGISTRY", nobody.path().c_str(), 1);
  const auto analyser = tshark({"-i", "kes_vpn"});
  analyser->wait();
  EXPECT_THAT(analyser->err(), HasSubstr("kestrace-extcap: no VPN driver is loaded"));
  ::unsetenv("KES_IOREGISTRY");
}

TEST_F(TsharkTest, ItTellsOfADriverThatDies) {
  play("packet bytes 41414141414142424242424208004500 x3\npacket die\n");
  const auto analyser = tshark({"-i", "kes_vpn", "-w", dir_ / "capture"});
  analyser->wait();
  EXPECT_THAT(analyser->err(), HasSubstr("the VPN driver was unloaded"));
  EXPECT_EQ(packetsOf(dir_ / "capture").size(), 3U);
}

TEST_F(TsharkTest, TwoAtATimeAreRefusedAsTheDriverDoes) {
  play("open return 0\nopen return kIOReturnExclusiveAccess\n",
       {"--replay", SAMPLES "/loopback.pcap", "--loop", "--rate", "20"});
  // The script's answer leaves the driver without a role for the first; its packets are the script's, too.
  const auto first = tshark({"-i", "kes_vpn", "-w", dir_ / "first"});
  ASSERT_TRUE(waitForRequests("packet", 1)) << first->err();
  const auto second = tshark({"-i", "kes_vpn", "-w", dir_ / "second"});
  second->wait();
  EXPECT_THAT(second->err(), HasSubstr("another program has the VPN driver"));
  first->signal(SIGINT);
  first->wait();
}

TEST_F(TsharkTest, LevelsAreSetAsItsPreferencesSay) {
  playSample({"--loop", "--rate", "100"});
  const auto analyser = tshark(
      {"-i", "kes_vpn", "-o", "extcap.kes_vpn.driverlevel:3", "-o", "extcap.kes_vpn.totals:true", "-c", "5"});
  EXPECT_EQ(analyser->wait(), 0) << analyser->err();
  EXPECT_THAT(driver().output(), HasSubstr("structure=0e0002000a0000010300000000"));
  EXPECT_THAT(analyser->err(), HasSubstr(" bytes taken, "));
}

TEST_F(TsharkTest, ARingOfFilesIsBounded) {
  playSample({"--loop"});
  const auto analyser =
      tshark({"-i", "kes_vpn", "-b", "filesize:50", "-b", "files:3", "-c", "2000", "-w", dir_ / "ring"});
  EXPECT_EQ(analyser->wait(), 0) << analyser->err();
  Process list({"sh", "-c", "ls " + dir_.path() + " | grep -c ring"});
  list.wait();
  EXPECT_EQ(list.out(), "3\n");
}

}  // namespace
}  // namespace kes::test
