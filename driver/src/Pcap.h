#pragma once

#include <memory>
#include <string>

struct pcap;

namespace kes::driver {

struct PcapCloser {
  void operator()(pcap* handle) const;
};
using PcapHandle = std::unique_ptr<pcap, PcapCloser>;

/// Opens a capture file whose packets are given as long as they stand in the file, whatever its header
/// promises, and stamped in nanoseconds. Throws std::runtime_error when it cannot be read, is no capture, or
/// holds no Ethernet packets.
PcapHandle openCapture(const std::string& file);

/// Throws std::runtime_error unless the handle's packets begin with an Ethernet header.
void mustBeEthernet(const PcapHandle& handle, const std::string& source);

}  // namespace kes::driver
