// Holds our declarations of I/O Kit against the tool chain's Mach types. Compiles against a real SDK too.
#include <IOKit/IOKitLib.h>
#include <IOKit/IOReturn.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

using std::is_same_v;

// The Mach types are the platform's own words; what they stand for is written out once, here.
static_assert(is_same_v<mach_port_t, unsigned int> && is_same_v<task_port_t, mach_port_t>);
static_assert(is_same_v<kern_return_t, int> && is_same_v<IOReturn, kern_return_t>);
static_assert(is_same_v<decltype(mach_task_self()), mach_port_t>);
static_assert(kIOReturnSuccess == KERN_SUCCESS && IO_OBJECT_NULL == MACH_PORT_NULL);

// What a result is called, and its value, are the platform's.
constexpr unsigned valueOf(kern_return_t result) { return static_cast<unsigned>(result); }
static_assert(valueOf(MACH_SEND_INVALID_DEST) == 0x10000003);
static_assert(valueOf(kIOReturnNoDevice) == 0xe00002c0 && valueOf(kIOReturnNotPrivileged) == 0xe00002c1);
static_assert(valueOf(kIOReturnExclusiveAccess) == 0xe00002c5 && valueOf(kIOReturnStillOpen) == 0xe00002d2);
static_assert(valueOf(kIOReturnBusy) == 0xe00002d5 && valueOf(kIOReturnNoSpace) == 0xe00002db);
static_assert(valueOf(kIOReturnNotPermitted) == 0xe00002e2);

static_assert(is_same_v<io_object_t, mach_port_t> && is_same_v<io_service_t, mach_port_t>);
static_assert(is_same_v<io_connect_t, mach_port_t> &&
              is_same_v<decltype(kIOMasterPortDefault), const mach_port_t>);
static_assert(is_same_v<CFMutableDictionaryRef, struct __CFDictionary*>);
static_assert(is_same_v<CFDictionaryRef, const struct __CFDictionary*>);

static_assert(is_same_v<decltype(IOServiceMatching), CFMutableDictionaryRef(const char*)>);
static_assert(is_same_v<decltype(IOServiceGetMatchingService), io_service_t(mach_port_t, CFDictionaryRef)>);
static_assert(is_same_v<decltype(IOServiceOpen),
                        kern_return_t(io_service_t, task_port_t, std::uint32_t, io_connect_t*)>);
static_assert(is_same_v<decltype(IOServiceClose), kern_return_t(io_connect_t)>);
static_assert(is_same_v<decltype(IOObjectRelease), kern_return_t(io_object_t)>);
static_assert(is_same_v<decltype(IOConnectCallScalarMethod),
                        kern_return_t(mach_port_t, std::uint32_t, const std::uint64_t*, std::uint32_t,
                                      std::uint64_t*, std::uint32_t*)>);
static_assert(
    is_same_v<decltype(IOConnectCallMethod),
              kern_return_t(mach_port_t, std::uint32_t, const std::uint64_t*, std::uint32_t, const void*,
                            std::size_t, std::uint64_t*, std::uint32_t*, void*, std::size_t*)>);
