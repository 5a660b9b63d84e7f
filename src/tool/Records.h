#pragma once

#include <cstdint>

/// The input records of selector 3, as the driver reads them: in the byte order of both targets, which is
/// little-endian. What the leading constants mean is the driver's.

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
