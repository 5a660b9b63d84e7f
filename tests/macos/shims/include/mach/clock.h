#pragma once

#include <mach/mach.h>

using clock_id_t = int;
using clock_serv_t = mach_port_t;

struct mach_timespec {
  unsigned int tv_sec;
  int tv_nsec;
};
using mach_timespec_t = mach_timespec;

inline constexpr clock_id_t SYSTEM_CLOCK = 0;
inline constexpr clock_id_t CALENDAR_CLOCK = 1;

extern "C" {
kern_return_t host_get_clock_service(host_t host, clock_id_t id, clock_serv_t* service);
kern_return_t clock_get_time(clock_serv_t service, mach_timespec_t* now);
}
