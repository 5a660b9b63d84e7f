#pragma once

#include <cstdint>

#include "Driver.h"
#include "EventLoop.h"
#include "Replay.h"

namespace kes::driver {

/// Lets the packets of a replay pass by the driver: at a rate while any connection is open, or, without a
/// rate, one whenever a packet is asked for, so that none is lost. All parts must outlive the loop's run.
class ReplayPump {
 public:
  ReplayPump(EventLoop& loop, Driver& driver, Replay& replay)
      : loop_(loop), driver_(driver), replay_(replay) {}

  void onDemand();
  void atRate(double packetsPerSecond);

 private:
  void resume();
  void tick(unsigned run);
  bool passOne();

  EventLoop& loop_;
  Driver& driver_;
  Replay& replay_;
  double rate_ = 0;
  EventLoop::Clock::time_point start_;
  std::uint64_t passed_ = 0;  // since start_
  unsigned run_ = 0;          // a tick of an earlier run is stale
};

}  // namespace kes::driver
