#include "ReplayPump.h"

#include <chrono>

namespace kes::driver {

using Clock = EventLoop::Clock;
using Seconds = std::chrono::duration<double>;

void ReplayPump::onDemand() {
  driver_.packetWanted = [this] {
    while (const auto packet = replay_.next()) {
      driver_.packetSeen(*packet);
      if (!packet->empty()) return;
    }
  };
}

void ReplayPump::atRate(double packetsPerSecond) {
  rate_ = packetsPerSecond;
  driver_.activityChanged = [this](bool active) {
    ++run_;
    if (active) resume();
  };
}

void ReplayPump::resume() {
  start_ = Clock::now();
  passed_ = 0;
  tick(run_);
}

void ReplayPump::tick(unsigned run) {
  if (run != run_) return;
  const double elapsed = Seconds(Clock::now() - start_).count();
  const auto due = static_cast<std::uint64_t>(elapsed * rate_) + 1;
  while (passed_ < due) {
    if (!passOne()) return;
  }
  const Seconds next(static_cast<double>(passed_) / rate_);
  loop_.at(start_ + std::chrono::ceil<Clock::duration>(next), [this, run] { tick(run); });
}

bool ReplayPump::passOne() {
  const auto packet = replay_.next();
  if (!packet) return false;
  driver_.packetSeen(*packet);
  ++passed_;
  return true;
}

}  // namespace kes::driver
