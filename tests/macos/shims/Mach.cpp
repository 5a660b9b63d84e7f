#include <mach/clock.h>
#include <mach/mach.h>

#include <ctime>

namespace {
// Ports of the services are their clocks' numbers behind this one: never 0, which is the null port.
constexpr clock_serv_t firstService = 0x1000;
}  // namespace

host_t mach_host_self() { return 0x203; }

kern_return_t host_get_clock_service(host_t host, clock_id_t id, clock_serv_t* service) {
  if (host != mach_host_self() || (id != SYSTEM_CLOCK && id != CALENDAR_CLOCK)) return KERN_INVALID_ARGUMENT;
  *service =
      firstService + static_cast<clock_serv_t>(id == CALENDAR_CLOCK ? CLOCK_REALTIME : CLOCK_MONOTONIC);
  return KERN_SUCCESS;
}

kern_return_t clock_get_time(clock_serv_t service, mach_timespec_t* now) {
  timespec time{};
  if (::clock_gettime(static_cast<clockid_t>(service - firstService), &time) != 0) return KERN_FAILURE;
  now->tv_sec = static_cast<unsigned int>(time.tv_sec);
  now->tv_nsec = static_cast<int>(time.tv_nsec);
  return KERN_SUCCESS;
}
