#include <IOKit/IOKitLib.h>
#include <mach/mach.h>

#include "Calls.h"

namespace loader {

namespace {

mach_port_t taskSelf = mach_task_self();

// The driver's end is the stand-in that the Linux tool talks to as well.
const Call calls[] = {
    {"mach_task_self_", taskSelf},
    {"kIOMasterPortDefault", kIOMasterPortDefault},
    {"IOServiceMatching", IOServiceMatching},
    {"IOServiceGetMatchingService", IOServiceGetMatchingService},
    {"IOServiceOpen", IOServiceOpen},
    {"IOServiceClose", IOServiceClose},
    {"IOObjectRelease", IOObjectRelease},
    {"IOConnectCallMethod", IOConnectCallMethod},
    {"IOConnectCallScalarMethod", IOConnectCallScalarMethod},
};

}  // namespace

std::span<const Call> ioKitCalls() { return calls; }

}  // namespace loader
