#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "iokit/UserClient.h"
#include "support/DriverProcess.h"
#include "support/Eventually.h"
#include "support/PcapFile.h"
#include "sys/Owner.h"

namespace kes::test {
namespace {

constexpr int packetCount = 200;
const std::string mark = "kesdriver live test ";

bool mayCapture() {
  return runDriver({"--live", "lo", "--dir", "/proc"}).output.find("cannot capture") == std::string::npos;
}

/// tcpdump on the loopback interface, writing a capture of UDP to one port.
class Tcpdump {
 public:
  Tcpdump(const std::string& file, const std::string& log, int port) {
    writeFile(log, "");
    pid_ = ::fork();
    if (pid_ == 0) {
      if (::freopen(log.c_str(), "a", stderr) == nullptr) ::_exit(126);
      const std::string filter = "udp dst port " + std::to_string(port);
      ::execlp("tcpdump", "tcpdump", "-i", "lo", "-U", "-Z", "root", "--immediate-mode", "-s", "4096", "-B",
               "16384", "-w", file.c_str(), filter.c_str(), nullptr);
      ::_exit(127);
    }
  }
  ~Tcpdump() { end(); }

  void end() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
};

/// Sends datagrams to itself over the loopback interface.
class Talker {
 public:
  Talker() : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::bind(socket_.get(), generic(), sizeof address_), 0);
    socklen_t size = sizeof address_;
    EXPECT_EQ(::getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&address_), &size), 0);
  }
  int port() const { return ntohs(address_.sin_port); }
  void say(const std::string& text) {
    EXPECT_EQ(::sendto(socket_.get(), text.data(), text.size(), 0, generic(), sizeof address_),
              static_cast<ssize_t>(text.size()));
  }

 private:
  const sockaddr* generic() const { return reinterpret_cast<const sockaddr*>(&address_); }

  sys::Descriptor socket_;
  sockaddr_in address_{};
};

bool isOurs(const std::string& packet) { return packet.find(mark) != std::string::npos; }

std::vector<std::string> ours(const std::vector<std::string>& packets) {
  std::vector<std::string> kept;
  std::copy_if(packets.begin(), packets.end(), std::back_inserter(kept), isOurs);
  return kept;
}

TEST(LiveTest, TheDriverAndTcpdumpSeeTheSameTraffic) {
  if (!mayCapture()) GTEST_SKIP() << "capturing on the loopback interface is not permitted here";
  if (std::system("command -v tcpdump >/dev/null") != 0) GTEST_SKIP() << "tcpdump is not installed";
  const TempDir directory;
  Talker talker;
  Tcpdump tcpdump(directory / "tcpdump.pcap", directory / "tcpdump.log", talker.port());
  ASSERT_TRUE(eventually([&] {
    return readFile(directory / "tcpdump.log").find("listening on") != std::string::npos;
  })) << readFile(directory / "tcpdump.log");
  DriverProcess driver({"--live", "lo"});
  const io_connect_t connect = openClient(2);
  std::vector<std::string> seen;
  for (int i = 0; i < packetCount; ++i) {
    talker.say(mark + std::to_string(i) + std::string(static_cast<std::size_t>(i) * 7, 'x'));
    ASSERT_TRUE(eventually([&] {  // one after the other: other traffic of this machine may fill the queue
      const CallResult reply = getPacket(connect);
      const std::string packet(reply.bytes.begin(), reply.bytes.end());
      if (isOurs(packet)) seen.push_back(packet);
      return seen.size() == static_cast<std::size_t>(i) + 1;
    }));
  }
  const auto written = [&] { return ours(PcapFile::parse(readFile(directory / "tcpdump.pcap")).packets()); };
  eventually([&] { return written().size() >= packetCount; });
  tcpdump.end();
  EXPECT_EQ(written().size(), static_cast<std::size_t>(packetCount)) << readFile(directory / "tcpdump.log");
  EXPECT_EQ(seen, written());
  EXPECT_EQ(driver.stop(), 0);
  EXPECT_THAT(driver.output(), testing::ContainsRegex("lo: [0-9]+ received, [0-9]+ lost in the kernel"));
}

TEST(LiveTest, ALiveDriversSocketIsItsUsersOwn) {
  if (!mayCapture()) GTEST_SKIP() << "capturing on the loopback interface is not permitted here";
  const DriverProcess driver({"--live", "lo"});
  struct stat info {};
  ASSERT_EQ(::stat(driver.socket().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777u, 0600u);
}

}  // namespace
}  // namespace kes::test
