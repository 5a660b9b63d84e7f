#pragma once

#include <chrono>
#include <functional>
#include <optional>

#include "Driver.h"
#include "EventLoop.h"
#include "PacketSource.h"

namespace kes::driver {

/// Lets the packets of a source pass by the driver in their time while any connection is open. All parts must
/// outlive the loop's run.
class ReplayPump {
 public:
  using Seconds = std::chrono::duration<double>;
  /// How much later than the one before it the packet passes that the source gave last.
  using Timing = std::function<Seconds(const PacketSource&)>;

  ReplayPump(EventLoop& loop, Driver& driver, PacketSource& source, Timing timing);

  static Timing atRate(double packetsPerSecond);
  static Timing asCaptured();

 private:
  void resume();
  void tick(unsigned run);
  bool fetch();

  EventLoop& loop_;
  Driver& driver_;
  PacketSource& source_;
  Timing timing_;
  EventLoop::Clock::time_point start_;
  std::optional<iokit::Bytes> next_;  // waits for its time
  Seconds due_{};                     // when it passes, after start_
  unsigned run_ = 0;                  // a tick of an earlier run is stale
};

}  // namespace kes::driver
