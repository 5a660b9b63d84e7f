#include "Records.h"

#include <gmock/gmock.h>

namespace kes::driver {
namespace {

using ByteVector = std::vector<std::uint8_t>;

ByteVector levelsRecord() {
  ByteVector record{0x0e, 0, 2, 0, 0x0a, 0, 0, 1, 0x01, 0x02, 0x03, 0x04, 0xff, 0xff};
  record.resize(32);
  return record;
}

ByteVector traceRequest() {
  ByteVector record{0x10, 0, 0, 1};
  record.resize(16);
  return record;
}

iokit::Request call(std::uint32_t selector, const ByteVector& structure) {
  iokit::RequestHeader header;
  header.kind = static_cast<std::uint16_t>(iokit::Kind::Call);
  header.selector = selector;
  return {header, {}, structure};
}

TEST(RecordsTest, LevelsAreReadFromTheirPlaces) {
  const auto levels = parseLevels(levelsRecord());
  ASSERT_TRUE(levels);
  EXPECT_EQ(levels->driver, 0x0201);
  EXPECT_EQ(levels->ppp, 0x0403);
  EXPECT_EQ(levels->oid, 0xffff);
}

TEST(RecordsTest, ARecordMayLieAtAnOddAddress) {
  ByteVector bytes = levelsRecord();
  bytes.insert(bytes.begin(), 0xee);
  const auto levels = parseLevels(iokit::Bytes(bytes).subspan(1));
  ASSERT_TRUE(levels);
  EXPECT_EQ(levels->ppp, 0x0403);
}

TEST(RecordsTest, TheUnwrittenBytesOfARecordMayBeAnything) {
  ByteVector levels = levelsRecord();
  std::fill(levels.begin() + 14, levels.end(), std::uint8_t{0xee});
  EXPECT_EQ(callOf(call(3, levels)).name, CallName::Levels);
  EXPECT_TRUE(parseLevels(levels));
  ByteVector trace = traceRequest();
  std::fill(trace.begin() + 4, trace.end(), std::uint8_t{0xee});
  EXPECT_EQ(callOf(call(3, trace)).name, CallName::Trace);
}

TEST(RecordsTest, EveryLeadingByteCounts) {
  for (std::size_t i = 0; i < 8; ++i) {
    ByteVector record = levelsRecord();
    record[i] ^= 1;
    EXPECT_EQ(callOf(call(3, record)).name, CallName::Other) << i;
  }
  for (std::size_t i = 0; i < 4; ++i) {
    ByteVector record = traceRequest();
    record[i] ^= 1;
    EXPECT_EQ(callOf(call(3, record)).name, CallName::Other) << i;
  }
}

TEST(RecordsTest, ALevelsRecordOfAnotherSizeHoldsNoLevels) {
  for (const std::size_t size : {8u, 14u, 31u, 33u}) {
    ByteVector record = levelsRecord();
    record.resize(size);
    EXPECT_FALSE(parseLevels(record)) << size;
  }
}

TEST(RecordsTest, CallsAreToldBySelectorAndRecord) {
  EXPECT_EQ(callOf(call(0, {})).name, CallName::Open);
  EXPECT_EQ(callOf(call(2, {})).name, CallName::Packet);
  EXPECT_EQ(callOf(call(3, levelsRecord())).name, CallName::Levels);
  EXPECT_EQ(callOf(call(3, traceRequest())).name, CallName::Trace);
  EXPECT_EQ(callOf(call(3, {})).name, CallName::Other);
  EXPECT_EQ(callOf(call(3, {0x10, 0, 0, 2})).name, CallName::Other);
  EXPECT_EQ(callOf(call(1, traceRequest())).name, CallName::Other);
  iokit::Request open = call(0, {});
  open.header.kind = static_cast<std::uint16_t>(iokit::Kind::Open);
  EXPECT_EQ(callOf(open).name, CallName::Service);
}

TEST(RecordsTest, ATraceReplyCountsTwoAndTheTextWithoutItsNul) {
  EXPECT_THAT(makeTraceReply(""), testing::ElementsAre(2, 0));
  EXPECT_THAT(makeTraceReply("ab"), testing::ElementsAre(4, 0, 'a', 'b'));
  const auto longest = makeTraceReply(std::string(maxTraceText, 'x'));
  EXPECT_EQ(longest.size(), 2047u);
  EXPECT_EQ(longest[0], 0xff);
  EXPECT_EQ(longest[1], 0x07);
}

}  // namespace
}  // namespace kes::driver
