#include <cstring>

#include "kespal/time/Clock.h"
#include "pcaplib/capture.h"
#include "support/PcapFile.h"
#include "support/TempDir.h"

namespace {

using kes::test::PcapFile;
using kes::test::readFile;
using kes::test::TempDir;

const unsigned char packet[] = {1, 2, 3, 4};

TEST(DumpCloseTest, AClosedTypeIsAsItWasBeforeAndItsFileStaysComplete) {
  kes::time::ClockBase::init();
  const TempDir dir;
  const std::string path = dir / "capture";
  ASSERT_TRUE(DumpOpen(path.c_str(), PCAP_PPP));
  ASSERT_TRUE(DumpPacket(packet, sizeof packet, PCAP_PPP));
  EXPECT_TRUE(DumpClose(PCAP_PPP));
  EXPECT_EQ(cap_types[PCAP_PPP].opened, 0);
  EXPECT_STREQ(cap_types[PCAP_PPP].path, "");
  EXPECT_STREQ(cap_types[PCAP_PPP].name, "ppp");
  EXPECT_EQ(PcapFile::parse(readFile(path)).records.size(), 1U);
}

TEST(DumpCloseTest, AnotherCaptureOfTheTypeLeavesTheClosedOneAlone) {
  kes::time::ClockBase::init();
  const TempDir dir;
  const std::string first = dir / "first", second = dir / "second";
  ASSERT_TRUE(DumpOpen(first.c_str(), PCAP_IP));
  EXPECT_TRUE(DumpClose(PCAP_IP));
  ASSERT_TRUE(DumpOpen(second.c_str(), PCAP_IP));
  ASSERT_TRUE(DumpPacket(packet, sizeof packet, PCAP_IP));
  EXPECT_TRUE(PcapFile::parse(readFile(first)).records.empty());
  EXPECT_EQ(PcapFile::parse(readFile(second)).records.size(), 1U);
  EXPECT_TRUE(DumpClose(PCAP_IP));
}

TEST(DumpCloseTest, ThereAreThreeTypes) {
  EXPECT_FALSE(DumpClose(3));
  EXPECT_TRUE(DumpClose(PCAP_ETHERNET));
}

}  // namespace
