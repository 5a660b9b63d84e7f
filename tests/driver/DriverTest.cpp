#include "Driver.h"

#include <gmock/gmock.h>

#include <sstream>

#include "support/CaptureFiles.h"

namespace kes::driver {
namespace {

using test::CaptureFiles;
using testing::HasSubstr;
using ByteVector = std::vector<std::uint8_t>;

/// Gives these packets, one after the other.
class FakeSource : public PacketSource {
 public:
  explicit FakeSource(std::vector<ByteVector> packets) : packets_(std::move(packets)) {}

  std::optional<iokit::Bytes> next() override {
    ++asked_;
    if (given_ == packets_.size()) return std::nullopt;
    return packets_[given_++];
  }
  int asked() const { return asked_; }

 private:
  std::vector<ByteVector> packets_;
  std::size_t given_ = 0;
  int asked_ = 0;
};

/// One user client of a driver, without a socket between them.
class Client {
 public:
  Client(Driver& driver, unsigned number) : driver_(driver), session_{number} {}

  Answer attach() { return driver_.answer(session_, request(iokit::Kind::Open, 0, {}, {}, 0)); }
  Answer open(std::uint64_t type) {
    for (std::size_t i = 0; i < 8; ++i) scalar_[i] = static_cast<std::uint8_t>(type >> (8 * i));
    return driver_.answer(session_, request(iokit::Kind::Call, 0, scalar_, {}, 0));
  }
  Answer call(std::uint32_t selector, const ByteVector& structure, std::size_t capacity) {
    return driver_.answer(session_, request(iokit::Kind::Call, selector, {}, structure, capacity));
  }
  Answer levels(std::uint8_t driver, std::uint8_t ppp, std::uint8_t oid) {
    ByteVector record{0x0e, 0, 2, 0, 0x0a, 0, 0, 1, driver, 0, ppp, 0, oid, 0};
    record.resize(32);
    return call(3, record, 0);
  }
  Answer trace(std::size_t capacity = 2047) {
    ByteVector record{0x10, 0, 0, 1};
    record.resize(16);
    return call(3, record, capacity);
  }
  std::string text() {
    const Answer answer = trace();
    return answer.result == kIOReturnSuccess
               ? std::string(answer.structure.begin() + 2, answer.structure.end())
               : "failed";
  }
  Answer packet(std::size_t capacity = 4096) { return call(2, {}, capacity); }
  void close() { driver_.closed(session_); }

 private:
  static Call request(iokit::Kind kind, std::uint32_t selector, iokit::Bytes scalars, iokit::Bytes structure,
                      std::size_t capacity) {
    iokit::RequestHeader header;
    header.kind = static_cast<std::uint16_t>(kind);
    header.selector = selector;
    header.scalarCount = static_cast<std::uint32_t>(scalars.size() / 8);
    header.structureSize = static_cast<std::uint32_t>(structure.size());
    header.structureCapacity = static_cast<std::uint32_t>(capacity);
    return callOf({header, scalars, structure});
  }

  Driver& driver_;
  Session session_;
  ByteVector scalar_ = ByteVector(8);
};

class DriverTest : public testing::Test {
 protected:
  Client client(std::uint64_t type) {
    Client made(driver_, ++number_);
    EXPECT_EQ(made.attach().result, kIOReturnSuccess);
    EXPECT_EQ(made.open(type).result, kIOReturnSuccess);
    return made;
  }
  std::string totals() const {
    std::ostringstream out;
    driver_.printTotals(out);
    return out.str();
  }
  void pass(std::size_t length, std::uint8_t seed = 0) {
    driver_.packetSeen(CaptureFiles::packet(length, seed));
  }

  Driver driver_{Driver::Settings{}};
  unsigned number_ = 0;
};

TEST_F(DriverTest, NothingWorksBeforeTheUserClientIsThere) {
  Client client(driver_, 1);
  EXPECT_EQ(client.open(1).result, kIOReturnNotOpen);
  EXPECT_EQ(client.packet().result, kIOReturnNotOpen);
  EXPECT_EQ(client.attach().result, kIOReturnSuccess);
  EXPECT_EQ(client.attach().result, kIOReturnStillOpen);
}

TEST_F(DriverTest, ARoleIsTakenOnceAndOneOfTwo) {
  Client client(driver_, 1);
  client.attach();
  EXPECT_EQ(client.open(0).result, kIOReturnBadArgument);
  EXPECT_EQ(client.open(3).result, kIOReturnBadArgument);
  EXPECT_EQ(client.open(0x100000001).result, kIOReturnBadArgument);
  EXPECT_EQ(client.call(0, {}, 0).result, kIOReturnBadArgument) << "no scalar";
  EXPECT_EQ(client.open(2).result, kIOReturnSuccess);
  EXPECT_EQ(client.open(1).result, kIOReturnStillOpen);
}

TEST_F(DriverTest, EachRoleHasItsOwnCalls) {
  Client trace = client(1);
  Client dump = client(2);
  EXPECT_EQ(trace.packet().result, kIOReturnNotPermitted);
  EXPECT_EQ(dump.trace().result, kIOReturnNotPermitted);
  EXPECT_EQ(dump.levels(1, 1, 1).result, kIOReturnNotPermitted);
  Client undecided(driver_, 9);
  undecided.attach();
  EXPECT_EQ(undecided.packet().result, kIOReturnNotPermitted);
  EXPECT_EQ(undecided.trace().result, kIOReturnNotPermitted);
}

TEST_F(DriverTest, UnknownSelectorsAndRecordsHaveTheirResults) {
  Client trace = client(1);
  EXPECT_EQ(trace.call(1, {}, 0).result, kIOReturnUnsupported);
  EXPECT_EQ(trace.call(4, {}, 0).result, kIOReturnUnsupported);
  EXPECT_EQ(trace.call(3, {}, 2047).result, kIOReturnBadArgument);
  EXPECT_EQ(trace.call(3, {0x10, 0, 0, 1}, 2047).result, kIOReturnBadArgument) << "16 bytes, not 4";
  EXPECT_EQ(trace.call(3, {0x0e, 0, 2, 0, 0x0a, 0, 0, 1}, 0).result, kIOReturnBadArgument)
      << "32 bytes, not 8";
  for (const std::size_t size : {15u, 17u, 32u}) {
    ByteVector record{0x10, 0, 0, 1};
    record.resize(size);
    EXPECT_EQ(trace.call(3, record, 2047).result, kIOReturnBadArgument) << size;
  }
}

TEST_F(DriverTest, WithLevelsAtZeroTheDriverIsSilent) {
  Client trace = client(1);
  Client dump = client(2);
  pass(60);
  dump.packet();
  EXPECT_EQ(trace.text(), "");
  EXPECT_EQ(trace.trace().structure.size(), 2u);
}

TEST_F(DriverTest, EachLevelFiltersItsOwnEvents) {
  Client trace = client(1);
  trace.levels(1, 0, 0);
  Client dump = client(2);
  pass(60);
  EXPECT_EQ(trace.text(), "driver: user client 2 created\ndriver: user client 2 opened for packet dump\n");
  trace.levels(0, 2, 0);
  pass(61);
  dump.close();
  EXPECT_EQ(trace.text(), "ppp: packet of 61 bytes\n");
  trace.levels(0, 0, 1);
  pass(62);
  EXPECT_EQ(trace.text(), "oid: set debug levels: driver=0, ppp=0, oid=1\n");
}

TEST_F(DriverTest, HigherLevelsSayMore) {
  Client trace = client(1);
  Client dump = client(2);
  trace.levels(0, 3, 2);
  trace.text();
  driver_.packetSeen(ByteVector{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0x08, 0x06});
  dump.packet();
  EXPECT_EQ(trace.text(), "ppp: packet of 14 bytes, type 0x0806\noid: get packet: 14 bytes\n");
  trace.levels(0, 0, 3);
  EXPECT_THAT(trace.text(), HasSubstr("oid: get trace: "));
}

TEST_F(DriverTest, TraceTextComesInPiecesOfAtMost2045Bytes) {
  Client trace = client(1);
  driver_.trace().append(std::string(5000, 'x') + '\n');
  EXPECT_EQ(trace.trace(4096).structure.size(), 2047u);
  EXPECT_EQ(trace.trace(2047).structure.size(), 2047u);
  EXPECT_EQ(trace.trace(10).structure.size(), 10u);
  EXPECT_EQ(trace.trace(2).structure.size(), 2u);
  EXPECT_EQ(trace.trace(2047).structure.size(), 2u + 5001 - 2045 - 2045 - 8);
  EXPECT_EQ(trace.trace(1).result, kIOReturnNoSpace);
  EXPECT_EQ(trace.trace(0).result, kIOReturnNoSpace);
}

TEST_F(DriverTest, PacketsAreDeliveredWholeAndInOrder) {
  Client dump = client(2);
  for (const std::size_t length : {1u, 2u, 3u, 60u, 1514u, 4095u, 4096u})
    pass(length, static_cast<std::uint8_t>(length));
  for (const std::size_t length : {1u, 2u, 3u, 60u, 1514u, 4095u, 4096u}) {
    const Answer answer = dump.packet();
    EXPECT_EQ(answer.result, kIOReturnSuccess);
    EXPECT_EQ(answer.structure, CaptureFiles::packet(length, static_cast<std::uint8_t>(length)));
  }
  EXPECT_TRUE(dump.packet().structure.empty());
}

TEST_F(DriverTest, AnEmptyPacketIsSkippedAndCounted) {
  Client dump = client(2);
  pass(0);
  pass(5);
  EXPECT_EQ(dump.packet().structure.size(), 5u);
  EXPECT_THAT(totals(), HasSubstr("packets: 2 seen, 1 delivered, 0 cut, 0 refused, 0 dropped, 1 empty"));
}

TEST_F(DriverTest, ALongPacketIsCutAndCounted) {
  Client dump = client(2);
  pass(4097);
  pass(100000, 1);
  pass(200);
  const ByteVector whole = CaptureFiles::packet(4097);
  EXPECT_EQ(dump.packet().structure, ByteVector(whole.begin(), whole.end() - 1));
  EXPECT_EQ(dump.packet(5000).structure.size(), 4096u);
  EXPECT_EQ(dump.packet(100).structure.size(), 100u) << "and so is one that the caller has no room for";
  EXPECT_THAT(totals(), HasSubstr("3 delivered, 3 cut, 0 refused"));
}

TEST_F(DriverTest, ALongPacketMayBeRefusedInsteadAndIsGoneThen) {
  Driver driver({.oversize = Oversize::Refuse});
  Client dump(driver, 1);
  dump.attach();
  dump.open(2);
  for (const std::size_t length : {4097u, 4096u, 200u}) driver.packetSeen(CaptureFiles::packet(length));
  EXPECT_EQ(dump.packet().result, kIOReturnNoSpace);
  EXPECT_EQ(dump.packet().structure.size(), 4096u);
  EXPECT_EQ(dump.packet(100).result, kIOReturnNoSpace);
  EXPECT_TRUE(dump.packet().structure.empty());
  std::ostringstream out;
  driver.printTotals(out);
  EXPECT_THAT(out.str(), HasSubstr("1 delivered, 0 cut, 2 refused"));
}

TEST_F(DriverTest, DumpConnectionsShareTheQueue) {
  Client first = client(2);
  Client second = client(2);
  pass(10);
  pass(20);
  EXPECT_EQ(second.packet().structure.size(), 10u);
  EXPECT_EQ(first.packet().structure.size(), 20u);
  EXPECT_TRUE(first.packet().structure.empty());
}

TEST_F(DriverTest, PacketsAreQueuedOnlyWhileSomebodyDumps) {
  Client trace = client(1);
  pass(10);
  Client dump = client(2);
  EXPECT_TRUE(dump.packet().structure.empty());
  pass(20);
  dump.close();
  pass(30);
  Client next = client(2);
  EXPECT_EQ(next.packet().structure.size(), 20u) << "what was queued stays";
  EXPECT_TRUE(next.packet().structure.empty());
  EXPECT_THAT(totals(), HasSubstr("2 unwatched, 0 left"));
}

TEST_F(DriverTest, ASourceIsAskedForOnePacketAtATimeAndOnlyWhenNoneIsQueued) {
  FakeSource source({CaptureFiles::packet(10), {}, {}, CaptureFiles::packet(5000)});
  driver_.fetchFrom(source);
  Client dump = client(2);
  pass(20);
  EXPECT_EQ(dump.packet().structure.size(), 20u);
  EXPECT_EQ(source.asked(), 0);
  EXPECT_EQ(dump.packet().structure, CaptureFiles::packet(10));
  EXPECT_EQ(source.asked(), 1);
  const ByteVector whole = CaptureFiles::packet(5000);
  EXPECT_EQ(dump.packet().structure, ByteVector(whole.begin(), whole.begin() + 4096));
  EXPECT_EQ(source.asked(), 4) << "packets without a byte are passed over";
  EXPECT_TRUE(dump.packet().structure.empty());
  EXPECT_THAT(totals(), HasSubstr("packets: 5 seen, 3 delivered, 1 cut, 0 refused, 0 dropped, 2 empty"));
}

TEST_F(DriverTest, WhatIsNotAPacketCallTakesNothingFromTheSource) {
  FakeSource source({CaptureFiles::packet(10)});
  driver_.fetchFrom(source);
  Client trace = client(1);
  trace.packet();
  trace.trace();
  EXPECT_EQ(source.asked(), 0);
}

TEST_F(DriverTest, AFullQueueDropsAndCounts) {
  Driver driver({.queueCapacity = 2});
  Client dump(driver, 1);
  dump.attach();
  dump.open(2);
  for (int i = 0; i < 5; ++i) driver.packetSeen(CaptureFiles::packet(60));
  std::ostringstream out;
  driver.printTotals(out);
  EXPECT_THAT(out.str(),
              HasSubstr("5 seen, 0 delivered, 0 cut, 0 refused, 3 dropped, 0 empty, 0 unwatched, 2 left"));
}

TEST_F(DriverTest, HowManyWereDroppedIsSaidInTheTraceWhenThereIsRoomAgain) {
  Driver driver({.queueCapacity = 1});
  Client trace(driver, 1);
  trace.attach();
  trace.open(1);
  trace.levels(0, 1, 0);
  Client dump(driver, 2);
  dump.attach();
  dump.open(2);
  for (int i = 0; i < 3; ++i) driver.packetSeen(CaptureFiles::packet(60));
  dump.packet();
  for (int i = 0; i < 2; ++i) driver.packetSeen(CaptureFiles::packet(60));
  EXPECT_EQ(trace.text(),
            "ppp: packet dropped: queue full\nppp: packet dropped: queue full\n"
            "ppp: the queue has room again: 2 packets were dropped\nppp: packet dropped: queue full\n");
}

TEST_F(DriverTest, TotalsMayBeHadAsTraceText) {
  Client trace = client(1);
  trace.levels(1, 0, 0);
  driver_.traceTotals();
  EXPECT_EQ(
      trace.text(),
      "driver: connections: 1 (trace 1, dump 0)\n"
      "driver: trace: 0 bytes delivered, 0 lost, 0 left\n"
      "driver: packets: 0 seen, 0 delivered, 0 cut, 0 refused, 0 dropped, 0 empty, 0 unwatched, 0 left\n");
}

TEST_F(DriverTest, ALossOfTraceTextIsSaidInTheTraceAndInTheTotals) {
  Driver driver({.traceCapacity = 64});
  Client trace(driver, 1);
  trace.attach();
  trace.open(1);
  trace.levels(0, 2, 0);
  for (int i = 0; i < 10; ++i) driver.packetSeen(CaptureFiles::packet(60));
  std::string text = trace.text();
  EXPECT_EQ(text, "ppp: packet of 60 bytes\nppp: packet of 60 bytes\n");
  EXPECT_EQ(trace.text(), "*** 192 bytes of trace lost ***\n");
  std::ostringstream out;
  driver.printTotals(out);
  EXPECT_THAT(out.str(), HasSubstr("trace: 80 bytes delivered, 192 lost, 0 left"));
}

TEST_F(DriverTest, WithATraceOfItsOwnTheDriverAddsNoEvents) {
  Driver driver({.ownEvents = false});
  Client trace(driver, 1);
  trace.attach();
  trace.open(1);
  trace.levels(9, 9, 9);
  driver.packetSeen(CaptureFiles::packet(60));
  driver.trace().append("text from outside\n");
  EXPECT_EQ(trace.text(), "text from outside\n");
}

TEST_F(DriverTest, ActivityBeginsWithTheFirstRoleAndEndsWithTheLast) {
  std::vector<bool> changes;
  driver_.activityChanged = [&](bool active) { changes.push_back(active); };
  Client first = client(1);
  Client second = client(2);
  first.close();
  second.close();
  second.close();
  EXPECT_THAT(changes, testing::ElementsAre(true, false));
}

TEST_F(DriverTest, AConnectionThatIsClosedMayBeUsedAfreshByNobody) {
  Client trace = client(1);
  trace.close();
  EXPECT_EQ(trace.trace().result, kIOReturnNotOpen);
}

}  // namespace
}  // namespace kes::driver
