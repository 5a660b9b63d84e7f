#include <arpa/inet.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "support/PcapFile.h"
#include "tool/ToolFixture.h"

namespace kes::test {
namespace {

/// Gives this process a network of its own, in which only the loopback interface exists.
bool enterOwnNetwork() {
  if (::unshare(CLONE_NEWNET) != 0) return false;
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  const bool isUp = ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
  ::close(fd);
  return isUp;
}

/// Sends numbered datagrams to a socket of its own.
void talk(int count) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
  for (int i = 0; i < count; ++i) {
    const std::string text =
        "datagram " + std::to_string(i) + std::string(static_cast<std::size_t>(i * 13), '.');
    ::sendto(fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&address), size);
    char buffer[4096];
    ASSERT_EQ(::recv(fd, buffer, sizeof buffer, 0), static_cast<ssize_t>(text.size()));
  }
  ::close(fd);
}

class LiveCaptureTest : public ToolTest {};

TEST_F(LiveCaptureTest, TheToolAndTcpdumpSeeTheSamePackets) {
  constexpr int datagrams = 100;
  if (!enterOwnNetwork()) GTEST_SKIP() << "a network of the test's own is not permitted here";
  play("", {"--live", "lo"});
  TestPipe keyboard;
  Process tool(kestrace({"-dump", dir_ / "tool.pcap"}), {.in = keyboard.reader});
  Process tcpdump({"tcpdump", "-i", "lo", "-U", "-Z", "root", "--immediate-mode", "-s", "8192", "-w",
                   dir_ / "tcpdump.pcap"});
  ASSERT_TRUE(tcpdump.waitForErr("listening on lo")) << tcpdump.err();
  ASSERT_TRUE(waitForRequests("packet", 1));
  talk(datagrams);
  const auto stored = [this](const char* name) { return PcapFile::parse(readFile(dir_ / name)).packets(); };
  ASSERT_TRUE(
      driver().waitForOutput([&](const std::string&) { return stored("tool.pcap").size() >= datagrams; }));
  ASSERT_TRUE(
      driver().waitForOutput([&](const std::string&) { return stored("tcpdump.pcap").size() >= datagrams; }));
  keyboard.write("Q");
  EXPECT_EQ(tool.wait(), 0);
  tcpdump.signal(SIGTERM);
  EXPECT_EQ(tcpdump.wait(), 0);
  EXPECT_EQ(stored("tool.pcap").size(), static_cast<std::size_t>(datagrams));
  EXPECT_TRUE(stored("tool.pcap") == stored("tcpdump.pcap"));
}

}  // namespace
}  // namespace kes::test
