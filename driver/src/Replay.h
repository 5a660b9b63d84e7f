#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "PacketSource.h"
#include "Pcap.h"

namespace kes::driver {

/// The packets of capture files, one file after the other. Throws std::runtime_error when made from a file
/// that is no capture of Ethernet packets; what is wrong further on is printed and ends that file.
class Replay : public PacketSource {
 public:
  /// Reads every file once, to know it.
  Replay(const std::vector<std::string>& files, bool loop);

  std::optional<iokit::Bytes> next() override;
  /// 0 for the first packet of each file, too.
  std::chrono::nanoseconds gap() const override { return gap_; }

  /// Says for each file how many of its packets are shorter than they were on the wire, if any are.
  void printShortened(std::ostream& out) const;

 private:
  struct File {
    std::string name;
    std::uint64_t packets = 0;
    std::uint64_t shortened = 0;
  };

  static File survey(const std::string& name);
  bool openNext();
  void note(std::chrono::nanoseconds time);

  std::vector<File> files_;
  bool loop_;
  std::size_t index_ = 0;  // of the file after the open one
  PcapHandle capture_;
  std::optional<std::chrono::nanoseconds> lastTime_;  // of a packet of the open file
  std::chrono::nanoseconds gap_{};
  bool sawPacket_ = false;  // in this pass: a pass without any is the last
};

}  // namespace kes::driver
