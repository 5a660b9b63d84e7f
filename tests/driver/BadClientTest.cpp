#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <random>

#include "iokit/UserClient.h"
#include "support/DriverProcess.h"
#include "wire/Unix.h"
#include "wire/Wire.h"

namespace kes::test {
namespace {

using ByteVector = std::vector<std::uint8_t>;

/// A client that says what it likes.
class RawClient {
 public:
  explicit RawClient(const DriverProcess& driver) : socket_(iokit::makeSocket()) {
    const auto address = iokit::addressOf(driver.socket());
    EXPECT_EQ(::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address), 0);
  }

  bool send(const ByteVector& datagram) {
    return ::send(socket_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL) >= 0;
  }
  /// The next datagram; empty when the driver hung up.
  ByteVector receive() {
    ByteVector datagram(8192);
    const ssize_t got = ::recv(socket_.get(), datagram.data(), datagram.size(), 0);
    datagram.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return datagram;
  }
  std::uint32_t resultOf(const ByteVector& request) {
    EXPECT_TRUE(send(request));
    const ByteVector reply = receive();
    if (reply.size() < iokit::replyHeaderSize) return 0xdead;
    return static_cast<std::uint32_t>(reply[12] | reply[13] << 8 | reply[14] << 16) | std::uint32_t{reply[15]}
                                                                                          << 24;
  }
  int fd() const { return socket_.get(); }

 private:
  sys::Descriptor socket_;
};

ByteVector request(iokit::Kind kind, std::uint32_t sequence, std::uint32_t selector = 2) {
  iokit::RequestHeader header;
  header.kind = static_cast<std::uint16_t>(kind);
  header.sequence = sequence;
  header.selector = selector;
  header.structureCapacity = 4096;
  ByteVector datagram(iokit::requestHeaderSize);
  iokit::encode(header, datagram.data());
  return datagram;
}

ByteVector with(ByteVector datagram, std::size_t offset, std::uint8_t value) {
  datagram[offset] = value;
  return datagram;
}

TEST(BadClientTest, WhatIsNoRequestIsHungUpOnAndOthersAreServedOn) {
  DriverProcess driver({"--verbose"});
  const io_connect_t good = openClient(2);
  const ByteVector call = request(iokit::Kind::Call, 1);
  ByteVector tooLong = call;
  tooLong.push_back(0);
  const ByteVector faults[] = {
      {0},     with(call, 0, 0), with(call, 4, 9),  with(call, 6, 7), with(call, 16, 1), with(call, 20, 1),
      tooLong, ByteVector(31),   ByteVector(100000)};
  for (const ByteVector& fault : faults) {
    RawClient bad(driver);
    ASSERT_TRUE(bad.send(fault));
    EXPECT_TRUE(bad.receive().empty());
    EXPECT_EQ(getPacket(good).code, kIOReturnSuccess);
  }
  EXPECT_EQ(driver.stop(), 0);
  EXPECT_THAT(driver.output(), testing::HasSubstr("broken protocols: 9\n"));
  EXPECT_THAT(driver.output(), testing::HasSubstr("malformed 00\n"));
}

TEST(BadClientTest, ASequenceThatDoesNotRiseIsHungUpOn) {
  const DriverProcess driver;
  for (const std::uint32_t second : {7u, 6u, 0u, 0x80000007u}) {
    RawClient client(driver);
    EXPECT_EQ(client.resultOf(request(iokit::Kind::Open, 7)), 0u);
    ASSERT_TRUE(client.send(request(iokit::Kind::Call, second)));
    EXPECT_TRUE(client.receive().empty()) << second;
  }
}

TEST(BadClientTest, ASequenceMayStartAnywhereSkipAndWrapAround) {
  const DriverProcess driver;
  RawClient client(driver);
  EXPECT_EQ(client.resultOf(request(iokit::Kind::Open, 0xfffffff0)), 0u);
  EXPECT_EQ(client.resultOf(request(iokit::Kind::Call, 0xfffffff9)),
            static_cast<std::uint32_t>(kIOReturnNotPermitted));
  EXPECT_EQ(client.resultOf(request(iokit::Kind::Call, 3)),
            static_cast<std::uint32_t>(kIOReturnNotPermitted));
}

TEST(BadClientTest, ACallBeforeTheUserClientIsOpenIsRefused) {
  const DriverProcess driver;
  RawClient client(driver);
  EXPECT_EQ(client.resultOf(request(iokit::Kind::Call, 1)), static_cast<std::uint32_t>(kIOReturnNotOpen));
  EXPECT_EQ(client.resultOf(request(iokit::Kind::Open, 2)), 0u);
  EXPECT_EQ(client.resultOf(request(iokit::Kind::Open, 3)), static_cast<std::uint32_t>(kIOReturnStillOpen));
}

TEST(BadClientTest, AClientThatNeverReadsIsHungUpOnAndHoldsNobodyUp) {
  const DriverProcess driver;
  RawClient deaf(driver);
  std::uint32_t sequence = 1;
  while (deaf.send(request(iokit::Kind::Call, sequence))) ++sequence;
  EXPECT_GT(sequence, 10u);
  EXPECT_EQ(getPacket(openClient(2)).code, kIOReturnSuccess);
}

TEST(BadClientTest, ClientsThatComeAndGoInTheMiddleOfACallLeaveNothingBehind) {
  const TempDir directory;
  DriverProcess driver({"--script", writeScript(directory, "service forever delay 5\n")});
  for (int i = 0; i < 300; ++i) RawClient(driver).send(request(iokit::Kind::Open, 1));
  EXPECT_EQ(getPacket(openClient(2)).code, kIOReturnSuccess);
  EXPECT_EQ(driver.stop(), 0);
}

TEST(BadClientTest, MoreConnectionsThanDescriptorsWaitTheirTurn) {
  const rlimit limit{40, 40};
  DriverProcess driver;
  ASSERT_EQ(::prlimit(driver.pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
  std::vector<std::unique_ptr<RawClient>> crowd;
  for (int i = 0; i < 60; ++i) crowd.push_back(std::make_unique<RawClient>(driver));
  ASSERT_TRUE(crowd.back()->send(request(iokit::Kind::Open, 1)));
  pollfd last{crowd.back()->fd(), POLLIN, 0};
  EXPECT_EQ(::poll(&last, 1, 300), 0) << "there is no descriptor for it yet";
  crowd.erase(crowd.begin(), crowd.begin() + 40);
  EXPECT_EQ(crowd.back()->receive().size(), iokit::replyHeaderSize);
  EXPECT_EQ(driver.stop(), 0);
}

TEST(BadClientTest, RandomBytesNeverHurt) {
  DriverProcess driver;
  std::minstd_rand random(20240229);  // NOLINT: the same bytes every time
  for (int i = 0; i < 2000; ++i) {
    RawClient client(driver);
    for (int round = 0; round < 3; ++round) {
      ByteVector datagram = request(iokit::Kind::Call, static_cast<std::uint32_t>(round + 1),
                                    static_cast<std::uint32_t>(random() % 5));
      datagram.resize(random() % 80);
      for (int change = 0; change < 3 && !datagram.empty(); ++change) {
        datagram[random() % datagram.size()] = static_cast<std::uint8_t>(random());
      }
      if (datagram.empty() || !client.send(datagram)) break;
    }
  }
  EXPECT_EQ(getPacket(openClient(2)).code, kIOReturnSuccess);
  EXPECT_EQ(driver.stop(), 0);
}

}  // namespace
}  // namespace kes::test
