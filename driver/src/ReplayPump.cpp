#include "ReplayPump.h"

#include <algorithm>
#include <utility>

namespace kes::driver {

using Clock = EventLoop::Clock;

namespace {

constexpr std::chrono::milliseconds longestTick(10);

}  // namespace

ReplayPump::ReplayPump(EventLoop& loop, Driver& driver, PacketSource& source, Timing timing)
    : loop_(loop), driver_(driver), source_(source), timing_(std::move(timing)) {
  driver_.activityChanged = [this](bool active) {
    ++run_;
    if (active) resume();
  };
}

ReplayPump::Timing ReplayPump::atRate(double packetsPerSecond) {
  return [packetsPerSecond](const PacketSource&) { return Seconds(1 / packetsPerSecond); };
}

ReplayPump::Timing ReplayPump::asCaptured() {
  return [](const PacketSource& source) { return Seconds(source.gap()); };
}

// The first packet of a run passes at once.
void ReplayPump::resume() {
  if (!next_ && !fetch()) return;
  start_ = Clock::now();
  due_ = Seconds(0);
  tick(run_);
}

// Times that this machine cannot keep up with must not starve the requests: each tick comes to an end, and
// the next is not before the loop has looked at them.
void ReplayPump::tick(unsigned run) {
  if (run != run_) return;
  const Clock::time_point begin = Clock::now();
  Clock::time_point now = begin;
  for (; due_ <= begin - start_ && now < begin + longestTick; now = Clock::now()) {
    driver_.packetSeen(*next_);
    if (!fetch()) return;
  }
  loop_.at(std::max(now, start_ + std::chrono::ceil<Clock::duration>(due_)), [this, run] { tick(run); });
}

bool ReplayPump::fetch() {
  next_ = source_.next();
  if (next_) due_ += timing_(source_);
  return next_.has_value();
}

}  // namespace kes::driver
