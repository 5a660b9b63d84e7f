#include "DriverCalls.h"

#include <cstring>
#include <functional>

#include "State.h"
#include "support/ForkedChild.h"
#include "tool/FakeDriver.h"

namespace {

using kes::test::fakeDriver;
using kes::test::FakeDriver;
using kes::test::inChild;

class DriverCallsTest : public testing::Test {
 protected:
  void SetUp() override {
    driver_ = {};
    dbgLvl = {};
  }

  /// Runs in a child, so that what is printed can be compared; the journal follows on standard output.
  static kes::test::ChildResult run(const std::function<int()>& body) {
    return inChild([&body] {
      const int code = body();
      for (const std::string& line : fakeDriver.journal) std::printf("[%s]\n", line.c_str());
      return code;
    });
  }

  FakeDriver& driver_ = fakeDriver;
};

constexpr char found[] = "Found a device of class kes_vpn_driver_keslbmac.\n";

TEST_F(DriverCallsTest, AConnectionIsMatchedOpenedAndAnnounced) {
  const auto child = run([] {
    CONNECTION_INFO info{1, 2};
    return OpenConnection(info, 1) && info.service == 5 && info.connect == 77 ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_EQ(child.out, std::string(found) +
                           "connection open, type =1\n"
                           "[match default kes_vpn_driver_keslbmac]\n"
                           "[open 5 self 0]\n"
                           "[scalar 77 selector 0 in 1: 1 out none none]\n");
  EXPECT_EQ(child.err, "");
}

TEST_F(DriverCallsTest, TheTypeOfTheConnectionIsTheOneScalarOfTheOpenCall) {
  const auto child = run([] {
    CONNECTION_INFO info{};
    return OpenConnection(info, 2) ? 0 : 1;
  });
  EXPECT_EQ(child.out, std::string(found) +
                           "connection open, type =2\n"
                           "[match default kes_vpn_driver_keslbmac]\n"
                           "[open 5 self 0]\n"
                           "[scalar 77 selector 0 in 1: 2 out none none]\n");
}

TEST_F(DriverCallsTest, WithoutAServiceNothingIsOpened) {
  driver_.matched = 0;
  const auto child = run([] {
    CONNECTION_INFO info{1, 2};
    return !OpenConnection(info, 1) && info.service == 0 && info.connect == 0 ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_EQ(child.out, "[match default kes_vpn_driver_keslbmac]\n");
  EXPECT_EQ(child.err, "IOServiceGetMatchingService didn't find a matching driver\n");
}

TEST_F(DriverCallsTest, ARefusedUserClientIsReportedAndTheServiceReleased) {
  driver_.openResult = static_cast<kern_return_t>(0xE00002C5);
  const auto child = run([] {
    CONNECTION_INFO info{};
    return !OpenConnection(info, 1) && info.service == 0 && info.connect == 0 ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_EQ(child.out, std::string(found) +
                           "IOServiceOpen failed ret=0xe00002c5\n"
                           "[match default kes_vpn_driver_keslbmac]\n"
                           "[open 5 self 0]\n"
                           "[release 5]\n");
  EXPECT_EQ(child.err, "");
}

TEST_F(DriverCallsTest, ARefusedOpenCallIsReportedAndBothHandlesReleased) {
  driver_.scalarResult = static_cast<kern_return_t>(0xE00002C2);
  const auto child = run([] {
    CONNECTION_INFO info{};
    return !OpenConnection(info, 2) && info.service == 0 && info.connect == 0 ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_EQ(child.out, std::string(found) +
                           "[match default kes_vpn_driver_keslbmac]\n"
                           "[open 5 self 0]\n"
                           "[scalar 77 selector 0 in 1: 2 out none none]\n"
                           "[close 77]\n"
                           "[release 5]\n");
  EXPECT_EQ(child.err, "kKesLbUserClientOpen returned 0xe00002c2.\n\n");
}

TEST_F(DriverCallsTest, ClosingClosesThenReleasesAndZeroesBothHandles) {
  CONNECTION_INFO info{5, 77};
  CloseConnection(info);
  EXPECT_EQ(driver_.journal, (std::vector<std::string>{"close 77", "release 5"}));
  EXPECT_EQ(info.service, 0U);
  EXPECT_EQ(info.connect, 0U);
  CloseConnection(info);
  EXPECT_EQ(driver_.journal.size(), 2U) << "a closed record was closed again";
}

TEST_F(DriverCallsTest, ARecordWithAServiceOnlyIsReleasedOnly) {
  CONNECTION_INFO info{5, 0};
  CloseConnection(info);
  EXPECT_EQ(driver_.journal, std::vector<std::string>{"release 5"});
}

TEST_F(DriverCallsTest, TheRecordIsTwoThirtyTwoBitHandlesServiceFirst) {
  static_assert(sizeof(CONNECTION_INFO) == 8);
  static_assert(offsetof(CONNECTION_INFO, service) == 0 && offsetof(CONNECTION_INFO, connect) == 4);
}

TEST_F(DriverCallsTest, TheDebugLevelsGoOutAsThirtyTwoExactBytes) {
  dbgLvl = {0x0102, 0xFFFF, 3};
  const auto child = run([] {
    SetDebugLevels(77);
    return 0;
  });
  EXPECT_EQ(child.out,
            "set debug levels: driver=258, ppp=65535, oid=3\n"
            "[call 77 selector 3 scalars none 0 structure 32: 0E0002000A000001"
            "0201"
            "FFFF"
            "0300"
            "000000000000000000000000000000000000 out none none capacity none]\n");
  EXPECT_EQ(child.err, "");
}

TEST_F(DriverCallsTest, RefusedDebugLevelsAreReportedInTheTraceCallsWordsWithoutItsColon) {
  driver_.answers = {{.result = static_cast<kern_return_t>(0xE00002BC)}};
  const auto child = run([] {
    SetDebugLevels(77);
    return 0;
  });
  EXPECT_EQ(child.err, "GetTrace failed ret=0xe00002bc.\n\n");
  EXPECT_EQ(child.out.find("set debug levels"), std::string::npos);
}

TEST_F(DriverCallsTest, GetTraceSendsSixteenExactBytesAndReturnsTheTextsLength) {
  driver_.answers = {{.bytes = std::string("\x07\x00hello", 7)}};
  char text[100];
  std::memset(text, 'x', sizeof text);
  EXPECT_EQ(GetTrace(77, text, sizeof text), 5U);
  EXPECT_STREQ(text + 2, "hello") << "the text has to end where the reply does";
  EXPECT_EQ(driver_.journal,
            std::vector<std::string>{"call 77 selector 3 scalars none 0 structure 16: "
                                     "10000001000000000000000000000000 out none none capacity 100"});
}

TEST_F(DriverCallsTest, AReplyOfTwoBytesOrFewerHasNoText) {
  for (const char* bytes : {"", "a", "ab"}) {
    driver_.answers = {{.bytes = bytes}};
    char text[100];
    EXPECT_EQ(GetTrace(77, text, sizeof text), 0U);
  }
}

TEST_F(DriverCallsTest, AReplyAsLongAsTheBufferIsNotTerminatedBehindIt) {
  driver_.answers = {{.bytes = "12345678"}};
  char text[9] = "xxxxxxxx";
  text[8] = '!';
  EXPECT_EQ(GetTrace(77, text, 8), 6U);
  EXPECT_EQ(text[8], '!');
}

TEST_F(DriverCallsTest, ACountAboveTheCapacityIsNotBelieved) {
  driver_.answers = {{.bytes = "1234", .claimed = 5000}, {.bytes = "1234", .claimed = 5000}};
  char text[8];
  EXPECT_EQ(GetTrace(77, text, sizeof text), 6U);
  const auto child = run([] {
    fakeDriver.answers = {{.bytes = "1234", .claimed = 5000}};
    unsigned char packet[8];
    return static_cast<int>(GetPacket(77, packet, sizeof packet));
  });
  EXPECT_EQ(child.exitCode(), 8);
}

TEST_F(DriverCallsTest, AFailedGetTraceIsReportedAndGivesZero) {
  driver_.answers = {{.result = 0x10000003}};
  const auto child = run([] {
    char text[8];
    return static_cast<int>(GetTrace(77, text, sizeof text));
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_EQ(child.err, "GetTrace failed: ret=0x10000003.\n\n");
}

TEST_F(DriverCallsTest, GetPacketHasNoInputAndAnnouncesAPacket) {
  driver_.answers = {{.bytes = "abcdefg"}};
  const auto child = run([] {
    unsigned char packet[4096];
    return static_cast<int>(GetPacket(77, packet, sizeof packet));
  });
  EXPECT_EQ(child.exitCode(), 7);
  EXPECT_EQ(child.err, "GetPacket ok len =7\n");
  EXPECT_EQ(child.out, "[call 77 selector 2 scalars none 0 structure 0:  out none none capacity 4096]\n");
}

TEST_F(DriverCallsTest, GetPacketSaysNothingWhenNoPacketWaits) {
  const auto child = run([] {
    unsigned char packet[64];
    return static_cast<int>(GetPacket(77, packet, sizeof packet));
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_EQ(child.err, "");
}

TEST_F(DriverCallsTest, AFailedGetPacketIsReportedAndGivesZero) {
  driver_.answers = {{.result = static_cast<kern_return_t>(0xE00002D7)}};
  const auto child = run([] {
    unsigned char packet[64];
    return static_cast<int>(GetPacket(77, packet, sizeof packet));
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_EQ(child.err, "GetPacket failed: ret=0xe00002d7.\n\n");
}

}  // namespace
