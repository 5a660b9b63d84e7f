#pragma once

#include <IOKit/IOReturn.h>

#include <functional>
#include <iosfwd>
#include <string>

#include "PacketQueue.h"
#include "PacketSource.h"
#include "Records.h"
#include "TraceBuffer.h"

namespace kes::driver {

enum class Role { None, Trace, Dump };
enum class Oversize { Cut, Refuse };
enum class Area { Driver, Ppp, Oid };

/// What the driver knows of one user client.
struct Session {
  unsigned number = 0;    ///< counts the connections from 1
  bool attached = false;  ///< IOServiceOpen() was accepted
  Role role = Role::None;
};

struct Answer {
  IOReturn result = kIOReturnSuccess;
  std::vector<std::uint8_t> structure{};
};

/// The driver's side of the calls: three debug levels, the trace text they filter, the captured packets.
/// Knows nothing of sockets, files or time. One thread.
class Driver {
 public:
  struct Settings {
    Oversize oversize = Oversize::Cut;
    bool ownEvents = true;  ///< trace text is what happens here; otherwise only what is appended
    std::size_t traceCapacity = TraceBuffer::usualCapacity;
    std::size_t queueCapacity = PacketQueue::usualCapacity;
  };

  explicit Driver(const Settings& settings);

  /// Answers a call and does what it asks for.
  Answer answer(Session& session, const Call& call);
  /// The client has gone.
  void closed(Session& session);

  /// A packet on the wire. It is queued while somebody dumps.
  void packetSeen(iokit::Bytes packet);
  /// Where a packet comes from that is asked for when none is queued. It must outlive the calls.
  void fetchFrom(PacketSource& source) { source_ = &source; }

  TraceBuffer& trace() { return trace_; }
  /// Adds a line to the trace if the area's level is at least `level`.
  void say(Area area, unsigned level, const std::string& text);

  /// Called when trace text is asked for and there is none: a supply that can wait adds some.
  std::function<void()> traceWanted = [] {};
  /// Called when the first connection took a role, and when the last such one closed.
  std::function<void(bool active)> activityChanged = [](bool) {};

  bool active() const { return tracers_ + dumpers_ > 0; }
  bool dumping() const { return dumpers_ > 0; }
  void printTotals(std::ostream& out) const;
  /// The same as trace text, at the driver's level 1.
  void traceTotals();

 private:
  Answer attach(Session& session);
  Answer open(Session& session, const iokit::Request& request);
  Answer setLevels(const Session& session, iokit::Bytes record);
  Answer getTrace(const Session& session, const iokit::Request& request);
  Answer getPacket(const Session& session, std::size_t capacity);
  Answer dispatch(Session& session, const Call& call);
  Answer deliver(iokit::Bytes packet, std::size_t room);
  std::optional<iokit::Bytes> nextOfSource();
  /// False for an empty packet, which nobody gets.
  bool countSeen(iokit::Bytes packet);
  unsigned& countOf(Role role) { return role == Role::Trace ? tracers_ : dumpers_; }
  bool wants(Area area, unsigned level) const;
  void describe(iokit::Bytes packet);

  struct Totals {
    std::uint64_t connections = 0;
    std::uint64_t traceConnections = 0;
    std::uint64_t dumpConnections = 0;
    std::uint64_t traceBytes = 0;
    std::uint64_t packetsSeen = 0;
    std::uint64_t packetsDelivered = 0;
    std::uint64_t packetsEmpty = 0;
    std::uint64_t packetsCut = 0;
    std::uint64_t packetsRefused = 0;
    std::uint64_t packetsUnwatched = 0;
  };

  Settings settings_;
  Levels levels_;
  TraceBuffer trace_;
  PacketQueue queue_;
  PacketSource* source_ = nullptr;
  Totals totals_;
  std::uint64_t untoldDrops_ = 0;  // since the trace last said how many
  unsigned tracers_ = 0;
  unsigned dumpers_ = 0;
};

}  // namespace kes::driver
