#include "kespal/time/Clock.h"

#include <mach/clock.h>
#include <mach/mach.h>

#include <cerrno>

#include "kespal/error/OsError.h"

namespace kes::time {

static_assert(sizeof(clock_serv_t) == sizeof OsClock::REALTIME);

void ClockBase::init() {
  ::host_get_clock_service(::mach_host_self(), CALENDAR_CLOCK, &REALTIME);
  ::host_get_clock_service(::mach_host_self(), SYSTEM_CLOCK, &MONOTONIC);
  INITTIME = PROCTIME = THREADTIME = MONOTONIC;
}

void ClockBase::update() {
  ::mach_timespec_t now;
  if (::clock_get_time(clock_, &now) != KERN_SUCCESS) {
    raiseAt({"src/os/posix/time/Clock", 60, "update"}, OsError(errno));
  }
  sec_ = now.tv_sec;
  nsec_ = now.tv_nsec;
}

}  // namespace kes::time
