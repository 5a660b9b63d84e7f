#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kes::test {

/// One packet of a capture file.
struct PcapRecord {
  std::uint32_t seconds;
  std::uint32_t microseconds;
  std::uint32_t wireLength;
  std::string bytes;

  bool operator==(const PcapRecord&) const = default;
};

/// A classic capture file as its bytes say, in either byte order and with micro- or nanoseconds.
struct PcapFile {
  std::uint32_t linkType = 0;
  std::uint32_t snapshotLength = 0;
  std::vector<PcapRecord> records;
  bool hasHeader = false;
  std::size_t torn = 0;  ///< bytes behind the last whole record, or of an incomplete header

  /// Throws std::runtime_error when the bytes do not start as a capture does.
  static PcapFile parse(const std::string& bytes);
  /// The packets' bytes alone.
  std::vector<std::string> packets() const;
};

}  // namespace kes::test
