#include <mach/clock.h>
#include <mach/mach.h>

#include "Calls.h"

namespace loader {

namespace {

const Call calls[] = {{"mach_host_self", mach_host_self},
                      {"host_get_clock_service", host_get_clock_service},
                      {"clock_get_time", clock_get_time}};

}  // namespace

std::span<const Call> machClockCalls() { return calls; }

}  // namespace loader
