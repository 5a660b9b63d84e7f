#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "iokit/UserClient.h"
#include "support/DriverProcess.h"
#include "support/ForkedChild.h"

namespace kes::test {
namespace {

TEST(IOKitLibTest, TheThreeCallsOfTheToolReachTheDriver) {
  const DriverProcess driver({"--verbose"});
  const io_connect_t trace = openClient(1);
  EXPECT_EQ(setLevels(trace, 3, 2, 1), kIOReturnSuccess);
  const CallResult text = getTrace(trace);
  EXPECT_EQ(text.code, kIOReturnSuccess);
  EXPECT_EQ(textOf(text), "oid: set debug levels: driver=3, ppp=2, oid=1\n");
  EXPECT_EQ(getTrace(trace).bytes.size(), 2u);
  EXPECT_EQ(IOServiceClose(trace), kIOReturnSuccess);

  const io_connect_t dump = openClient(2);
  const CallResult packet = getPacket(dump);
  EXPECT_EQ(packet.code, kIOReturnSuccess);
  EXPECT_TRUE(packet.bytes.empty());
  EXPECT_EQ(IOServiceClose(dump), kIOReturnSuccess);
}

TEST(IOKitLibTest, ResultsHaveThePlatformsValues) {
  EXPECT_EQ(static_cast<std::uint32_t>(kIOReturnNoDevice), 0xe00002c0u);
  EXPECT_EQ(static_cast<std::uint32_t>(kIOReturnBadArgument), 0xe00002c2u);
  EXPECT_EQ(static_cast<std::uint32_t>(kIOReturnExclusiveAccess), 0xe00002c5u);
  EXPECT_EQ(static_cast<std::uint32_t>(kIOReturnUnsupported), 0xe00002c7u);
  EXPECT_EQ(static_cast<std::uint32_t>(kIOReturnNoSpace), 0xe00002dbu);
  EXPECT_EQ(static_cast<std::uint32_t>(kIOReturnNotPermitted), 0xe00002e2u);
  EXPECT_EQ(kIOReturnSuccess, 0);
  EXPECT_EQ(MACH_SEND_INVALID_DEST, 0x10000003);
}

TEST(IOKitLibTest, WithoutASocketThereIsNoMatchingService) {
  const TempDir empty;
  ::setenv("KES_IOREGISTRY", empty.path().c_str(), 1);
  EXPECT_EQ(matchService(), 0u);
}

TEST(IOKitLibTest, WithNobodyListeningThereIsNoMatchingService) {
  DriverProcess driver;
  driver.signal(SIGKILL);
  driver.wait();
  ASSERT_TRUE(std::filesystem::exists(driver.socket())) << "a killed driver leaves its socket behind";
  EXPECT_EQ(matchService(), 0u);
}

TEST(IOKitLibTest, AClassNameIsNoPath) {
  const DriverProcess driver;
  EXPECT_EQ(matchService("../kes_vpn_driver_keslbmac"), 0u);
  EXPECT_EQ(matchService("./kes_vpn_driver_keslbmac"), 0u);
  EXPECT_EQ(matchService(""), 0u);
  EXPECT_EQ(matchService("kes_vpn_driver_keslbma"), 0u);
  EXPECT_NE(matchService(), 0u);
}

TEST(IOKitLibTest, APathTooLongForASocketIsNoMatchingService) {
  const TempDir top;
  const std::string deep = top / std::string(120, 'd');
  std::filesystem::create_directory(deep);
  ::setenv("KES_IOREGISTRY", deep.c_str(), 1);
  EXPECT_EQ(matchService(), 0u);
}

TEST(IOKitLibTest, AFileThatIsNoSocketIsNoMatchingService) {
  const TempDir directory;
  ::setenv("KES_IOREGISTRY", directory.path().c_str(), 1);
  writeFile(directory / "kes_vpn_driver_keslbmac.sock", "");
  EXPECT_EQ(matchService(), 0u);
}

TEST(IOKitLibTest, NullsAreRefusedAndNeverFollowed) {
  const DriverProcess driver;
  EXPECT_EQ(IOServiceMatching(nullptr), nullptr);
  EXPECT_EQ(IOServiceGetMatchingService(kIOMasterPortDefault, nullptr), 0u);
  const io_service_t service = matchService();
  EXPECT_EQ(IOServiceOpen(service, mach_task_self(), 0, nullptr), kIOReturnBadArgument);
  const io_connect_t connect = openClient(2);
  EXPECT_EQ(IOConnectCallMethod(connect, 2, nullptr, 1, nullptr, 0, nullptr, nullptr, nullptr, nullptr),
            kIOReturnBadArgument);
  EXPECT_EQ(IOConnectCallMethod(connect, 2, nullptr, 0, nullptr, 1, nullptr, nullptr, nullptr, nullptr),
            kIOReturnBadArgument);
  std::size_t count = 100;
  EXPECT_EQ(IOConnectCallMethod(connect, 2, nullptr, 0, nullptr, 0, nullptr, nullptr, nullptr, &count),
            kIOReturnSuccess);
  EXPECT_EQ(count, 0u);
}

TEST(IOKitLibTest, OnlyTheCallersOwnTaskMayOwnAUserClient) {
  const DriverProcess driver;
  const io_service_t service = matchService();
  io_connect_t connect = 7;
  EXPECT_EQ(IOServiceOpen(service, mach_task_self() + 1, 0, &connect), kIOReturnBadArgument);
}

TEST(IOKitLibTest, InputAboveTheLimitsIsRefused) {
  const DriverProcess driver;
  const io_connect_t connect = openClient(2);
  const std::vector<std::uint64_t> scalars(17);
  EXPECT_EQ(IOConnectCallScalarMethod(connect, 0, scalars.data(), 17, nullptr, nullptr),
            kIOReturnBadArgument);
  const std::vector<std::uint8_t> structure(4097);
  EXPECT_EQ(callMethod(connect, 3, structure, 0).code, kIOReturnBadArgument);
}

TEST(IOKitLibTest, AHandleIsGoodUntilItIsClosedAndNeverAfter) {
  const DriverProcess driver;
  const io_service_t service = matchService();
  io_connect_t connect = 0;
  ASSERT_EQ(IOServiceOpen(service, mach_task_self(), 0, &connect), kIOReturnSuccess);
  EXPECT_NE(connect, service);
  EXPECT_EQ(IOServiceClose(service), MACH_SEND_INVALID_DEST) << "a service is no connection";
  EXPECT_EQ(IOServiceClose(connect), kIOReturnSuccess);
  EXPECT_EQ(IOServiceClose(connect), MACH_SEND_INVALID_DEST);
  EXPECT_EQ(getPacket(connect).code, MACH_SEND_INVALID_DEST);
  EXPECT_EQ(IOObjectRelease(service), KERN_SUCCESS);
  EXPECT_EQ(IOObjectRelease(service), KERN_INVALID_NAME);
  EXPECT_EQ(IOServiceOpen(service, mach_task_self(), 0, &connect), MACH_SEND_INVALID_DEST);
  EXPECT_EQ(connect, 0u);
  EXPECT_EQ(IOObjectRelease(IO_OBJECT_NULL), KERN_SUCCESS);
}

TEST(IOKitLibTest, OneServiceOpensAnyNumberOfUserClients) {
  DriverProcess driver;
  const io_service_t service = matchService();
  for (int i = 0; i < 3; ++i) {
    io_connect_t connect = 0;
    EXPECT_EQ(IOServiceOpen(service, mach_task_self(), 0, &connect), kIOReturnSuccess);
  }
  driver.stop();
  EXPECT_NE(driver.output().find("connections: 3 "), std::string::npos) << driver.output();
}

TEST(IOKitLibTest, MatchingAloneIsNoConnectionToTheDriver) {
  DriverProcess driver({"--once"});
  for (int i = 0; i < 3; ++i) IOObjectRelease(matchService());
  IOServiceClose(openClient(1));
  EXPECT_EQ(driver.wait(), 0);
  EXPECT_NE(driver.output().find("connections: 1 (trace 1, dump 0)"), std::string::npos) << driver.output();
}

TEST(IOKitLibTest, HundredsOfConnectionsWorkAtOnce) {
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  DriverProcess driver;
  std::vector<io_connect_t> connections;
  for (int i = 0; i < 700; ++i) connections.push_back(openClient(i % 2 == 0 ? 1 : 2));
  for (int round = 0; round < 3; ++round) {
    for (std::size_t i = 0; i < connections.size(); ++i) {
      const CallResult reply = i % 2 == 0 ? getTrace(connections[i]) : getPacket(connections[i]);
      ASSERT_EQ(reply.code, kIOReturnSuccess);
      ASSERT_EQ(reply.bytes.size(), i % 2 == 0 ? 2u : 0u);
    }
  }
  for (const io_connect_t connect : connections) EXPECT_EQ(IOServiceClose(connect), kIOReturnSuccess);
  EXPECT_EQ(driver.stop(), 0);
  EXPECT_NE(driver.output().find("connections: 700 (trace 350, dump 350)"), std::string::npos);
}

TEST(IOKitLibTest, AConnectionIsAboveTheStandardDescriptorsAndDoesNotSurviveExec) {
  const DriverProcess driver;
  const ChildResult child = inChild([] {
    for (const int fd : {0, 1, 2}) ::close(fd);
    const io_connect_t connect = openClient(2);
    for (const int fd : {0, 1, 2}) {
      if (::fcntl(fd, F_GETFD) != -1) return 10 + fd;
    }
    for (int fd = 3; fd < 64; ++fd) {
      const int flags = ::fcntl(fd, F_GETFD);
      sockaddr_storage peer{};
      socklen_t size = sizeof peer;
      const bool isSocket = flags != -1 && ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0;
      if (isSocket && (flags & FD_CLOEXEC) == 0) return 20;
    }
    return getPacket(connect).code == kIOReturnSuccess ? 0 : 30;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(IOKitLibTest, TwoThreadsOnOneConnectionNeverGetEachOthersReplies) {
  const DriverProcess driver;
  const io_connect_t connect = openClient(1);
  std::atomic<int> wrong = 0;
  const auto worker = [&](bool wantsText) {
    for (int i = 0; i < 2000; ++i) {
      // One kind of call gets 2 bytes, the other none and an error: a mix-up shows at once.
      if (wantsText ? getTrace(connect).bytes.size() != 2 : getPacket(connect).code != kIOReturnNotPermitted)
        ++wrong;
    }
  };
  std::thread first(worker, true);
  std::thread second(worker, false);
  first.join();
  second.join();
  EXPECT_EQ(wrong, 0);
}

TEST(IOKitLibTest, ScalarAndStructureCountsComeBack) {
  const TempDir directory;
  const DriverProcess driver(
      {"--script",
       writeScript(directory, "packet scalars 2 bytes 0102030405\npacket scalars 0 bytes \"\"\n")});
  const io_connect_t connect = openClient(2);
  std::array<std::uint64_t, 4> scalars{9, 9, 9, 9};
  std::array<std::uint8_t, 8> bytes{};
  std::uint32_t scalarCount = 4;
  std::size_t byteCount = 8;
  ASSERT_EQ(IOConnectCallMethod(connect, 2, nullptr, 0, nullptr, 0, scalars.data(), &scalarCount,
                                bytes.data(), &byteCount),
            kIOReturnSuccess);
  EXPECT_EQ(scalarCount, 2u);
  EXPECT_THAT(scalars, testing::ElementsAre(0, 0, 9, 9));
  EXPECT_EQ(byteCount, 5u);
  EXPECT_THAT(bytes, testing::ElementsAre(1, 2, 3, 4, 5, 0, 0, 0));
  EXPECT_EQ(IOConnectCallMethod(connect, 2, nullptr, 0, nullptr, 0, scalars.data(), &scalarCount,
                                bytes.data(), &byteCount),
            kIOReturnSuccess);
  EXPECT_EQ(scalarCount, 0u);
  EXPECT_EQ(byteCount, 0u);
}

}  // namespace
}  // namespace kes::test
