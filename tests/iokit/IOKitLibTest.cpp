#include "iokit/UserClient.h"
#include "support/DriverProcess.h"

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

TEST(IOKitLibTest, WithoutADriverThereIsNoMatchingService) {
  const TempDir empty;
  ::setenv("KES_IOREGISTRY", empty.path().c_str(), 1);
  EXPECT_EQ(matchService(), 0u);
}

}  // namespace
}  // namespace kes::test
