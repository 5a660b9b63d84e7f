#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "wire/Wire.h"

struct pcap;

namespace kes::driver {

struct PcapCloser {
  void operator()(pcap* handle) const;
};
using PcapHandle = std::unique_ptr<pcap, PcapCloser>;

/// Throws std::runtime_error unless the handle's packets begin with an Ethernet header.
void mustBeEthernet(const PcapHandle& handle, const std::string& source);

/// The packets of capture files, one file after the other. Throws std::runtime_error when made from a file
/// that is no capture of Ethernet packets; what is wrong further on is printed and ends that file.
class Replay {
 public:
  Replay(std::vector<std::string> files, bool loop);

  /// The next packet, which may be empty; nothing at the end. It stays valid until the next call.
  std::optional<iokit::Bytes> next();

 private:
  bool openNext();

  std::vector<std::string> files_;
  bool loop_;
  std::size_t index_ = 0;  // of the file after the open one
  PcapHandle capture_;
  bool sawPacket_ = false;  // in this pass: a pass without any is the last
};

}  // namespace kes::driver
