/* The user-client calls of IOKit, declared as the platform declares them. A service of class C is a
   local SOCK_SEQPACKET socket C.sock in the directory that KES_IOREGISTRY names, or in /run/kes. */
#pragma once

#include <IOKit/IOReturn.h>
#include <mach/mach.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef const struct __CFDictionary* CFDictionaryRef;
typedef struct __CFDictionary* CFMutableDictionaryRef;

typedef mach_port_t io_object_t;
typedef io_object_t io_service_t;
typedef io_object_t io_connect_t;

#define IO_OBJECT_NULL ((io_object_t)0)

extern const mach_port_t kIOMasterPortDefault;

/* A description of the services of one class. IOServiceGetMatchingService() consumes it. */
CFMutableDictionaryRef IOServiceMatching(const char* name);

/* A service that matches, or 0: no such socket, nobody listening there, or its owner is neither root nor
   the caller. The handle is the caller's to release. */
io_service_t IOServiceGetMatchingService(mach_port_t mainPort, CFDictionaryRef matching);

kern_return_t IOServiceOpen(io_service_t service, task_port_t owningTask, uint32_t type,
                            io_connect_t* connect);
kern_return_t IOServiceClose(io_connect_t connect);
kern_return_t IOObjectRelease(io_object_t object);

/* One call of the driver. The counts are capacities on the way in and amounts on the way out, unchanged on
   failure. Blocks until the driver answers; one call at a time per connection. MACH_SEND_INVALID_DEST:
   the driver is gone; kIOReturnNoSpace: the answer exceeds a capacity; kIOReturnIPCError: it is no answer
   to this call. */
kern_return_t IOConnectCallMethod(mach_port_t connection, uint32_t selector, const uint64_t* input,
                                  uint32_t inputCnt, const void* inputStruct, size_t inputStructCnt,
                                  uint64_t* output, uint32_t* outputCnt, void* outputStruct,
                                  size_t* outputStructCnt);
kern_return_t IOConnectCallScalarMethod(mach_port_t connection, uint32_t selector, const uint64_t* input,
                                        uint32_t inputCnt, uint64_t* output, uint32_t* outputCnt);

#ifdef __cplusplus
}
#endif
