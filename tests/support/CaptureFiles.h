#pragma once

#include <cstdint>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

namespace kes::test {

using Packet = std::vector<std::uint8_t>;

/// Capture files made by hand, so that nothing that reads them is tested against itself.
class CaptureFiles {
 public:
  struct Header {
    std::uint32_t linkType = 1;
    std::uint32_t snapshotLength = 262144;
  };

  static std::string pcap(const std::vector<Packet>& packets) { return pcap(packets, Header()); }
  static std::string pcap(const std::vector<Packet>& packets, const Header& header) {
    std::string file = le32(0xa1b2c3d4) + le16(2) + le16(4) + le32(0) + le32(0) +
                       le32(header.snapshotLength) + le32(header.linkType);
    for (const Packet& packet : packets) file += record(packet, packet.size());
    return file;
  }

  /// A capture of one packet again and again, at these seconds and nanoseconds.
  static std::string stampedPcap(const std::vector<std::pair<std::size_t, std::size_t>>& times,
                                 const Packet& packet) {
    std::string file = le32(0xa1b23c4d) + le16(2) + le16(4) + le32(0) + le32(0) + le32(262144) + le32(1);
    for (const auto& [seconds, nanoseconds] : times) {
      file += le32(seconds) + le32(nanoseconds) + le32(packet.size()) + le32(packet.size()) + text(packet);
    }
    return file;
  }

  /// A packet in a classic file, which had so many bytes on the wire.
  static std::string record(const Packet& packet, std::size_t wireLength) {
    return le32(1700000000) + le32(0) + le32(packet.size()) + le32(wireLength) + text(packet);
  }

  static std::string pcapng(const std::vector<Packet>& packets) {
    std::string file =
        block(0x0a0d0d0a, le32(0x1a2b3c4d) + le16(1) + le16(0) + le32(0xffffffff) + le32(0xffffffff));
    file += block(1, le16(1) + le16(0) + le32(262144));
    for (const Packet& packet : packets) {
      const std::string padding((4 - packet.size() % 4) % 4, '\0');
      file += block(6, le32(0) + le32(0) + le32(0) + le32(packet.size()) + le32(packet.size()) +
                           text(packet) + padding);
    }
    return file;
  }

  /// A packet of this length whose bytes differ from those of its neighbours.
  static Packet packet(std::size_t length, std::uint8_t seed = 0) {
    Packet bytes(length);
    std::iota(bytes.begin(), bytes.end(), seed);
    return bytes;
  }

 private:
  static std::string text(const Packet& packet) { return {packet.begin(), packet.end()}; }
  static std::string le16(std::size_t value) {
    return {static_cast<char>(value & 0xff), static_cast<char>(value >> 8 & 0xff)};
  }
  static std::string le32(std::size_t value) { return le16(value & 0xffff) + le16(value >> 16); }
  static std::string block(std::size_t type, const std::string& body) {
    const std::string length = le32(body.size() + 12);
    return le32(type) + length + body + length;
  }
};

}  // namespace kes::test
