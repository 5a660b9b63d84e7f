#include "Driver.h"

#include <algorithm>
#include <cstdio>
#include <ostream>

namespace kes::driver {
namespace {

const char* nameOf(Role role) { return role == Role::Trace ? "trace" : "packet dump"; }

const char* prefixOf(Area area) {
  switch (area) {
    case Area::Driver:
      return "driver: ";
    case Area::Ppp:
      return "ppp: ";
    case Area::Oid:
      break;
  }
  return "oid: ";
}

std::string numberOf(const Session& session) { return std::to_string(session.number); }

std::string textOf(const Levels& levels) {
  return "driver=" + std::to_string(levels.driver) + ", ppp=" + std::to_string(levels.ppp) +
         ", oid=" + std::to_string(levels.oid);
}

}  // namespace

Driver::Driver(const Settings& settings)
    : settings_(settings), trace_(settings.traceCapacity), queue_(settings.queueCapacity) {}

Answer Driver::answer(Session& session, const iokit::Request& request) {
  if (callOf(request) == CallName::Service) return attach(session);
  if (!session.attached) return {kIOReturnNotOpen};
  return dispatch(session, request);
}

Answer Driver::dispatch(Session& session, const iokit::Request& request) {
  switch (callOf(request)) {
    case CallName::Open:
      return open(session, request);
    case CallName::Levels:
      return setLevels(session, request);
    case CallName::Trace:
      return getTrace(session, request);
    case CallName::Packet:
      return getPacket(session, request);
    default:
      break;
  }
  const bool known = request.header.selector == controlSelector;
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

Answer Driver::setLevels(const Session& session, const iokit::Request& request) {
  if (session.role != Role::Trace) return {kIOReturnNotPermitted};
  const auto levels = parseLevels(request.structure);
  if (!levels) return {kIOReturnBadArgument};
  levels_ = *levels;
  say(Area::Oid, 1, "set debug levels: " + textOf(levels_));
  return {};
}

Answer Driver::getTrace(const Session& session, const iokit::Request& request) {
  if (session.role != Role::Trace) return {kIOReturnNotPermitted};
  if (!isTraceRequest(request.structure)) return {kIOReturnBadArgument};
  const std::size_t capacity = request.header.structureCapacity;
  if (capacity < traceHeaderSize) return {kIOReturnNoSpace};
  say(Area::Oid, 3, "get trace: " + std::to_string(trace_.size()) + " bytes pending");
  if (trace_.size() < maxTraceText) traceWanted();
  const std::string text = trace_.take(std::min(capacity - traceHeaderSize, maxTraceText));
  totals_.traceBytes += text.size();
  return {kIOReturnSuccess, makeTraceReply(text)};
}

Answer Driver::getPacket(const Session& session, const iokit::Request& request) {
  if (session.role != Role::Dump) return {kIOReturnNotPermitted};
  if (queue_.empty()) packetWanted();
  auto packet = queue_.pop();
  if (!packet) return {};
  if (wants(Area::Oid, 2)) say(Area::Oid, 2, "get packet: " + std::to_string(packet->size()) + " bytes");
  return deliver(std::move(*packet), std::min<std::size_t>(request.header.structureCapacity, maxPacket));
}

Answer Driver::deliver(Frame packet, std::size_t capacity) {
  const bool tooLong = packet.size() > capacity;
  if (tooLong && settings_.oversize == Oversize::Refuse) {
    ++totals_.packetsRefused;
    say(Area::Ppp, 1, "packet refused: too long for a reply");
    return {kIOReturnNoSpace};
  }
  if (tooLong) {
    ++totals_.packetsCut;
    packet.resize(capacity);
  }
  ++totals_.packetsDelivered;
  return {kIOReturnSuccess, std::move(packet)};
}

void Driver::packetSeen(iokit::Bytes packet) {
  ++totals_.packetsSeen;
  if (packet.empty()) {
    ++totals_.packetsEmpty;
    return;
  }
  describe(packet);
  if (!dumping()) {
    ++totals_.packetsUnwatched;
    return;
  }
  // One byte above the limit is enough to know that a packet is above it.
  const iokit::Bytes kept = packet.first(std::min(packet.size(), maxPacket + 1));
  if (!queue_.push({kept.begin(), kept.end()})) say(Area::Ppp, 1, "packet dropped: queue full");
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
  if (!settings_.ownEvents) return false;
  switch (area) {
    case Area::Driver:
      return levels_.driver >= level;
    case Area::Ppp:
      return levels_.ppp >= level;
    case Area::Oid:
      break;
  }
  return levels_.oid >= level;
}

void Driver::say(Area area, unsigned level, const std::string& text) {
  if (wants(area, level)) trace_.append(prefixOf(area) + text + '\n');
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
