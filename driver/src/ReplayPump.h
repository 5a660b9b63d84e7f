#pragma once

#include <cstdint>

#include "Driver.h"
#include "EventLoop.h"
#include "PacketSource.h"

namespace kes::driver {

/// Lets the packets of a source pass by the driver at a rate while any connection is open. All parts must
/// outlive the loop's run.
class ReplayPump {
 public:
  ReplayPump(EventLoop& loop, Driver& driver, PacketSource& source, double packetsPerSecond);

 private:
  void resume();
  void tick(unsigned run);
  bool passOne();

  EventLoop& loop_;
  Driver& driver_;
  PacketSource& source_;
  double rate_;
  EventLoop::Clock::time_point start_;
  std::uint64_t passed_ = 0;  // since start_
  unsigned run_ = 0;          // a tick of an earlier run is stale
};

}  // namespace kes::driver
