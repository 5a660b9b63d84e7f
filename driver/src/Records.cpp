#include "Records.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace kes::driver {
namespace {

constexpr std::array<std::uint8_t, 8> levelsStart{0x0e, 0x00, 0x02, 0x00, 0x0a, 0x00, 0x00, 0x01};
constexpr std::array<std::uint8_t, 4> traceStart{0x10, 0x00, 0x00, 0x01};

bool startsWith(iokit::Bytes record, iokit::Bytes start) {
  return record.size() >= start.size() && std::equal(start.begin(), start.end(), record.begin());
}

std::uint16_t load16(iokit::Bytes record, std::size_t offset) {
  return static_cast<std::uint16_t>(record[offset] | record[offset + 1] << 8);
}

CallName controlNameOf(iokit::Bytes record) {
  if (startsWith(record, levelsStart)) return CallName::Levels;
  if (startsWith(record, traceStart)) return CallName::Trace;
  return CallName::Other;
}

CallName nameIn(const iokit::Request& request) {
  if (request.header.kind == static_cast<std::uint16_t>(iokit::Kind::Open)) return CallName::Service;
  switch (request.header.selector) {
    case openSelector:
      return CallName::Open;
    case packetSelector:
      return CallName::Packet;
    case controlSelector:
      return controlNameOf(request.structure);
    default:
      return CallName::Other;
  }
}

}  // namespace

Call callOf(const iokit::Request& request) { return {nameIn(request), request}; }

std::optional<Levels> parseLevels(iokit::Bytes record) {
  if (record.size() != levelsRecordSize) return std::nullopt;
  return Levels{load16(record, 8), load16(record, 10), load16(record, 12)};
}

std::vector<std::uint8_t> makeTraceReply(std::string_view text) {
  const std::size_t count = traceHeaderSize + text.size();
  std::vector<std::uint8_t> reply;
  reply.reserve(count);
  reply.push_back(static_cast<std::uint8_t>(count));
  reply.push_back(static_cast<std::uint8_t>(count >> 8));
  reply.insert(reply.end(), text.begin(), text.end());
  return reply;
}

}  // namespace kes::driver
