#include "pcaplib/capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <type_traits>

#include "kespal/error/OsError.h"
#include "pcaplib/CaptureFixture.h"
#include "support/PcapFile.h"
#include "support/ScriptedClock.h"

namespace kes::test {
namespace {

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

TEST_F(CaptureTest, FilesAreCloseOnExec) {
  ASSERT_TRUE(DumpOpen(file_.c_str(), 0));
  EXPECT_NE(lastOpenFlags & O_CLOEXEC, 0);
  ASSERT_TRUE(dump("abc"));
  EXPECT_NE(lastOpenFlags & O_CLOEXEC, 0);
}

}  // namespace
}  // namespace kes::test
