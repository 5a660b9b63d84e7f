#pragma once

#include <cstddef>
#include <cstdint>

namespace kes::client {

/// What travels in the calls. The input records of selector 3 are as the driver reads them: in the byte order
/// of both targets, which is little-endian. What the leading constants mean is the driver's.

struct SetDebugLevelsRecord {
  std::uint64_t head = 0x0100'000A'0002'000E;
  std::uint16_t driver;
  std::uint16_t ppp;
  std::uint16_t oid;
  std::uint8_t unused[18] = {};
};
static_assert(sizeof(SetDebugLevelsRecord) == 32);

struct GetTraceRequest {
  std::uint32_t head = 0x0100'0010;
  std::uint8_t unused[12] = {};
};
static_assert(sizeof(GetTraceRequest) == 16);

/// A trace reply begins with so many bytes of header; the text follows.
inline constexpr std::size_t traceHeader = 2;

/// No packet is longer.
inline constexpr std::size_t packetCapacity = 4096;

}  // namespace kes::client
