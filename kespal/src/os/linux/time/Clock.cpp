#include "kespal/time/Clock.h"

#include <cerrno>

#include "kespal/error/OsError.h"

namespace kes::time {

namespace {

// The calendar clock's id is 0, which has to mean "no clock": a handle is the id plus one, and the handle 0
// stands for an id that the kernel refuses with EINVAL.
constexpr std::uint32_t handleOf(clockid_t id) { return static_cast<std::uint32_t>(id) + 1; }
constexpr clockid_t idOf(std::uint32_t handle) { return static_cast<clockid_t>(handle - 1); }

}  // namespace

void ClockBase::init() {
  REALTIME = handleOf(CLOCK_REALTIME);
  MONOTONIC = handleOf(CLOCK_MONOTONIC);
  INITTIME = PROCTIME = THREADTIME = MONOTONIC;
}

void ClockBase::update() {
  ::timespec now;
  if (::clock_gettime(idOf(clock_), &now) != 0) {
    raiseAt({"src/os/posix/time/Clock", 60, "update"}, OsError(errno));
  }
  sec_ = static_cast<std::uint32_t>(now.tv_sec);
  nsec_ = static_cast<std::int32_t>(now.tv_nsec);
}

}  // namespace kes::time
