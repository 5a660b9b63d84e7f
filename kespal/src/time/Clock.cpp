#include "kespal/time/Clock.h"

namespace kes::time {

namespace {
constexpr std::int32_t nanosPerSecond = 1'000'000'000;
constexpr std::int64_t nanosPerMilli = 1'000'000;
}  // namespace

constinit std::uint32_t OsClock::REALTIME = 0;
constinit std::uint32_t OsClock::MONOTONIC = 0;
constinit std::uint32_t OsClock::INITTIME = 0;
constinit std::uint32_t OsClock::PROCTIME = 0;
constinit std::uint32_t OsClock::THREADTIME = 0;

constinit InitClock::Origin InitClock::m_init_time{0, 0};

// Both quotients truncate, so that the two parts can be negated whatever the count is.
ClockBase& ClockBase::operator+=(Milliseconds duration) noexcept {
  advance(duration.count() / 1000, duration.count() % 1000);
  return *this;
}

ClockBase& ClockBase::operator-=(Milliseconds duration) noexcept {
  advance(-(duration.count() / 1000), -(duration.count() % 1000));
  return *this;
}

void ClockBase::advance(std::int64_t seconds, std::int64_t milliseconds) noexcept {
  sec_ += static_cast<std::uint32_t>(seconds);
  nsec_ = static_cast<std::int32_t>(nsec_ + milliseconds * nanosPerMilli);
  if (nsec_ > nanosPerSecond) {
    sec_ += 1;
    nsec_ -= nanosPerSecond;
  }
}

::timespec ClockBase::toTimespec() const noexcept {
  return {.tv_sec = static_cast<time_t>(sec_), .tv_nsec = nsec_};
}

void ClockBase::subtract(std::uint32_t sec, std::int32_t nsec) noexcept {
  sec_ -= sec;
  if (nsec_ < nsec) {
    sec_ -= 1;
    nsec_ += nanosPerSecond;
  }
  nsec_ -= nsec;
}

void InitClock::init() {
  m_init_time = {0, 0};
  const InitClock now;
  m_init_time = {now.sec(), now.nsec()};
}

void InitClock::update() {
  ClockBase::update();
  subtract(m_init_time.sec, m_init_time.nsec);
}

}  // namespace kes::time
