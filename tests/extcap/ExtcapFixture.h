#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/Eventually.h"
#include "support/PcapFile.h"
#include "tool/ToolFixture.h"

namespace kes::test {

/// The program, or what KES_TEST_EXTCAP names in its place.
inline std::string extcapProgram() {
  const char* const other = ::getenv("KES_TEST_EXTCAP");
  return other != nullptr ? other : EXTCAP;
}

inline std::vector<std::string> extcap(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), extcapProgram());
  return arguments;
}

inline std::vector<std::string> capturing(const std::string& fifo, std::vector<std::string> more = {}) {
  more.insert(more.begin(), {extcapProgram(), "--capture", "--extcap-interface", "kes_vpn", "--fifo", fifo});
  return more;
}

/// A test of kestrace-extcap against the stand-in.
class ExtcapTest : public ToolTest {
 protected:
  void playSample(std::vector<std::string> options = {}) {
    options.insert(options.end(), {"--replay", SAMPLES "/loopback.pcap"});
    play("", options);
  }

  /// Options that serve the sample so many times more.
  static std::vector<std::string> repeated(int times) {
    std::vector<std::string> options;
    for (; times > 0; --times) options.insert(options.end(), {"--replay", SAMPLES "/loopback.pcap"});
    return options;
  }

  /// The first packets of the sample, which begins again at its end.
  static std::vector<std::string> sample(std::size_t count) {
    const auto once = PcapFile::parse(readFile(SAMPLES "/loopback.pcap")).packets();
    std::vector<std::string> packets;
    for (std::size_t i = 0; i < count; ++i) packets.push_back(once[i % once.size()]);
    return packets;
  }

  PcapFile captured(const std::string& name) const { return PcapFile::parse(readFile(dir_ / name)); }

  /// Waits until the file holds so many packets.
  bool waitForPackets(const std::string& name, std::size_t count) const {
    return eventually([&] {
      const std::string bytes = ::access((dir_ / name).c_str(), F_OK) == 0 ? readFile(dir_ / name) : "";
      return bytes.size() > 24 && PcapFile::parse(bytes).records.size() >= count;
    });
  }

  std::string makePipe(const std::string& name) const {
    ::mkfifo((dir_ / name).c_str(), 0600);
    return dir_ / name;
  }
};

}  // namespace kes::test
