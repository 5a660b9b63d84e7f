#include "ReplayPump.h"

#include <algorithm>
#include <chrono>

namespace kes::driver {

using Clock = EventLoop::Clock;
using Seconds = std::chrono::duration<double>;

namespace {

constexpr std::chrono::milliseconds longestTick(10);

}  // namespace

ReplayPump::ReplayPump(EventLoop& loop, Driver& driver, PacketSource& source, double packetsPerSecond)
    : loop_(loop), driver_(driver), source_(source), rate_(packetsPerSecond) {
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

// A rate that this machine cannot keep up with must not starve the requests: each tick comes to an end, and
// the next is not before the loop has looked at them.
void ReplayPump::tick(unsigned run) {
  if (run != run_) return;
  const Clock::time_point begin = Clock::now();
  Clock::time_point now = begin;
  const double due = Seconds(begin - start_).count() * rate_;
  for (; static_cast<double>(passed_) <= due && now < begin + longestTick; now = Clock::now()) {
    if (!passOne()) return;
  }
  const Seconds next(static_cast<double>(passed_) / rate_);
  loop_.at(std::max(now, start_ + std::chrono::ceil<Clock::duration>(next)), [this, run] { tick(run); });
}

bool ReplayPump::passOne() {
  const auto packet = source_.next();
  if (!packet) return false;
  driver_.packetSeen(*packet);
  ++passed_;
  return true;
}

}  // namespace kes::driver
