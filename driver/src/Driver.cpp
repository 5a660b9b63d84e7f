#include "Driver.h"

#include <algorithm>
#include <cstdio>
#include <ostream>
#include <sstream>

namespace kes::driver {
namespace {

const char* nameOf(Role role) { return role == Role::Trace ? "trace" : "packet dump"; }

/// What the trace calls an area, and the level that shows it.
struct AreaRow {
  const char* prefix;
  std::uint16_t Levels::*level;
};

const AreaRow& rowOf(Area area) {
  static constexpr AreaRow rows[] = {
      {"driver: ", &Levels::driver}, {"ppp: ", &Levels::ppp}, {"oid: ", &Levels::oid}};
  return rows[static_cast<std::size_t>(area)];
}

std::string numberOf(const Session& session) { return std::to_string(session.number); }

std::string textOf(const Levels& levels) {
  return "driver=" + std::to_string(levels.driver) + ", ppp=" + std::to_string(levels.ppp) +
         ", oid=" + std::to_string(levels.oid);
}

}  // namespace

Driver::Driver(const Settings& settings)
    : settings_(settings), trace_(settings.traceCapacity), queue_(settings.queueCapacity) {}

Answer Driver::answer(Session& session, const Call& call) {
  if (call.name == CallName::Service) return attach(session);
  if (!session.attached) return {kIOReturnNotOpen};
  return dispatch(session, call);
}

Answer Driver::dispatch(Session& session, const Call& call) {
  switch (call.name) {
    case CallName::Open:
      return open(session, call.request);
    case CallName::Levels:
      return setLevels(session, call.request.structure);
    case CallName::Trace:
      return getTrace(session, call.request);
    case CallName::Packet:
      return getPacket(session, call.request.header.structureCapacity);
    default:
      break;
  }
  const bool known = call.request.header.selector == controlSelector;
  return {known ? kIOReturnBadArgument : kIOReturnUnsupported};
}

Answer Driver::attach(Session& session) {
  if (session.attached) return {kIOReturnStillOpen};
  session.attached = true;
  ++totals_.connections;
  say(Area::Driver, 1, "user client " + numberOf(session) + " created");
  return {};
}

Answer Driver::open(Session& session, const iokit::Request& request) {
  if (request.header.scalarCount != 1) return {kIOReturnBadArgument};
  if (session.role != Role::None) return {kIOReturnStillOpen};
  switch (request.scalar(0)) {
    case 1:
      session.role = Role::Trace;
      break;
    case 2:
      session.role = Role::Dump;
      break;
    default:
      return {kIOReturnBadArgument};
  }
  const bool wasActive = active();
  ++countOf(session.role);
  ++(session.role == Role::Trace ? totals_.traceConnections : totals_.dumpConnections);
  say(Area::Driver, 1, "user client " + numberOf(session) + " opened for " + nameOf(session.role));
  if (!wasActive) activityChanged(true);
  return {};
}

void Driver::closed(Session& session) {
  if (!session.attached) return;
  say(Area::Driver, 1, "user client " + numberOf(session) + " closed");
  if (session.role != Role::None) {
    --countOf(session.role);
    if (!active()) activityChanged(false);
  }
  session = Session{session.number};
}

Answer Driver::setLevels(const Session& session, iokit::Bytes record) {
  if (session.role != Role::Trace) return {kIOReturnNotPermitted};
  const auto levels = parseLevels(record);
  if (!levels) return {kIOReturnBadArgument};
  levels_ = *levels;
  say(Area::Oid, 1, "set debug levels: " + textOf(levels_));
  return {};
}

Answer Driver::getTrace(const Session& session, const iokit::Request& request) {
  if (session.role != Role::Trace) return {kIOReturnNotPermitted};
  if (request.structure.size() != traceRequestSize) return {kIOReturnBadArgument};
  const std::size_t capacity = request.header.structureCapacity;
  if (capacity < traceHeaderSize) return {kIOReturnNoSpace};
  say(Area::Oid, 3, "get trace: " + std::to_string(trace_.size()) + " bytes pending");
  if (trace_.size() < maxTraceText) traceWanted();
  const std::string text = trace_.take(std::min(capacity - traceHeaderSize, maxTraceText));
  totals_.traceBytes += text.size();
  return {kIOReturnSuccess, makeTraceReply(text)};
}

Answer Driver::getPacket(const Session& session, std::size_t capacity) {
  if (session.role != Role::Dump) return {kIOReturnNotPermitted};
  const std::size_t room = std::min(capacity, maxPacket);
  if (const auto waiting = queue_.pop()) return deliver(*waiting, room);
  if (const auto next = nextOfSource()) return deliver(*next, room);
  return {};
}

Answer Driver::deliver(iokit::Bytes packet, std::size_t room) {
  if (wants(Area::Oid, 2)) say(Area::Oid, 2, "get packet: " + std::to_string(packet.size()) + " bytes");
  const bool tooLong = packet.size() > room;
  if (tooLong && settings_.oversize == Oversize::Refuse) {
    ++totals_.packetsRefused;
    say(Area::Ppp, 1, "packet refused: too long for a reply");
    return {kIOReturnNoSpace};
  }
  if (tooLong) {
    ++totals_.packetsCut;
    packet = packet.first(room);
  }
  ++totals_.packetsDelivered;
  return {kIOReturnSuccess, {packet.begin(), packet.end()}};
}

std::optional<iokit::Bytes> Driver::nextOfSource() {
  while (source_ != nullptr) {
    const auto packet = source_->next();
    if (!packet || countSeen(*packet)) return packet;
  }
  return std::nullopt;
}

bool Driver::countSeen(iokit::Bytes packet) {
  ++totals_.packetsSeen;
  if (packet.empty()) {
    ++totals_.packetsEmpty;
    return false;
  }
  describe(packet);
  return true;
}

void Driver::packetSeen(iokit::Bytes packet) {
  if (!countSeen(packet)) return;
  if (!dumping()) {
    ++totals_.packetsUnwatched;
    return;
  }
  // One byte above the limit is enough to know that a packet is above it.
  const iokit::Bytes kept = packet.first(std::min(packet.size(), maxPacket + 1));
  if (!queue_.push({kept.begin(), kept.end()})) {
    ++untoldDrops_;
    say(Area::Ppp, 1, "packet dropped: queue full");
  } else if (untoldDrops_ > 0) {
    say(Area::Ppp, 1, "the queue has room again: " + std::to_string(untoldDrops_) + " packets were dropped");
    untoldDrops_ = 0;
  }
}

void Driver::describe(iokit::Bytes packet) {
  if (!wants(Area::Ppp, 2)) return;
  constexpr std::size_t typeOffset = 12;
  char type[16] = "";
  if (wants(Area::Ppp, 3) && packet.size() >= typeOffset + 2) {
    std::snprintf(type, sizeof type, ", type 0x%02x%02x", packet[typeOffset], packet[typeOffset + 1]);
  }
  say(Area::Ppp, 2, "packet of " + std::to_string(packet.size()) + " bytes" + type);
}

bool Driver::wants(Area area, unsigned level) const {
  return settings_.ownEvents && levels_.*rowOf(area).level >= level;
}

void Driver::say(Area area, unsigned level, const std::string& text) {
  if (wants(area, level)) trace_.append(rowOf(area).prefix + text + '\n');
}

void Driver::traceTotals() {
  std::stringstream totals;
  printTotals(totals);
  for (std::string line; std::getline(totals, line);) say(Area::Driver, 1, line);
}

void Driver::printTotals(std::ostream& out) const {
  out << "connections: " << totals_.connections << " (trace " << totals_.traceConnections << ", dump "
      << totals_.dumpConnections << ")\n"
      << "trace: " << totals_.traceBytes << " bytes delivered, " << trace_.lost() << " lost, "
      << trace_.size() << " left\n"
      << "packets: " << totals_.packetsSeen << " seen, " << totals_.packetsDelivered << " delivered, "
      << totals_.packetsCut << " cut, " << totals_.packetsRefused << " refused, " << queue_.dropped()
      << " dropped, " << totals_.packetsEmpty << " empty, " << totals_.packetsUnwatched << " unwatched, "
      << queue_.size() << " left\n";
}

}  // namespace kes::driver
