#pragma once

#include <cstdint>

namespace kes::pcap {

/// Start of a capture file, in the host's byte order: readers tell the order by the magic.
struct FileHeader {
  std::uint32_t magic = 0xA1B2C3D4;
  std::uint16_t majorVersion = 2;
  std::uint16_t minorVersion = 4;
  std::uint32_t zoneCorrection = 0;
  std::uint32_t timestampAccuracy = 0;
  std::uint32_t snapshotLength = 65535;
  std::uint32_t linkType;
};
static_assert(sizeof(FileHeader) == 24);

/// Stands before each packet's bytes.
struct RecordHeader {
  std::uint32_t seconds;
  std::uint32_t microseconds;
  std::uint32_t capturedLength;
  std::uint32_t wireLength;
};
static_assert(sizeof(RecordHeader) == 16);

}  // namespace kes::pcap
