#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "wire/Wire.h"

namespace kes::driver {

/// The driver's own records, inside the datagrams: what the tool sends as structure input, byte for byte.
/// docs/user-client.md draws them.

constexpr char driverClass[] = "kes_vpn_driver_keslbmac";

constexpr std::uint32_t openSelector = 0;     ///< one scalar: the connection type
constexpr std::uint32_t packetSelector = 2;   ///< structure out: one packet
constexpr std::uint32_t controlSelector = 3;  ///< structure in: a set-debug-levels or a get-trace record

constexpr std::size_t levelsRecordSize = 32;
constexpr std::size_t traceRequestSize = 16;  ///< the last 12 bytes may be anything
constexpr std::size_t traceHeaderSize = 2;
constexpr std::size_t maxTraceText = 2045;
constexpr std::size_t maxPacket = iokit::maxStructure;

/// The calls by their names in scripts and journals.
enum class CallName { Connect, Service, Open, Levels, Trace, Packet, Other };
constexpr std::string_view callNames[] = {"connect", "service", "open", "levels", "trace", "packet", "other"};
constexpr std::string_view nameOf(CallName call) { return callNames[static_cast<std::size_t>(call)]; }

/// A request, and the call that it makes.
struct Call {
  CallName name;
  iokit::Request request;
};

/// Finds what a request calls: by its kind, its selector and, of a control call, the first bytes of its
/// record.
Call callOf(const iokit::Request& request);

struct Levels {
  std::uint16_t driver = 0;
  std::uint16_t ppp = 0;
  std::uint16_t oid = 0;
};

/// The levels in the record of a levels call, or nothing when it is not 32 bytes. Its last 18 bytes may be
/// anything.
std::optional<Levels> parseLevels(iokit::Bytes record);

/// The structure of a get-trace reply: a header that holds the byte count, and the text without its NUL.
std::vector<std::uint8_t> makeTraceReply(std::string_view text);

}  // namespace kes::driver
