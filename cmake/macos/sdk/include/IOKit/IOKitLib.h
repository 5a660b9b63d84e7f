/* The part of I/O Kit's user client interface that this project calls. */
#pragma once

#include <mach/mach.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef const struct __CFDictionary* CFDictionaryRef;
typedef struct __CFDictionary* CFMutableDictionaryRef;

typedef kern_return_t IOReturn;
typedef mach_port_t io_object_t;
typedef io_object_t io_service_t;
typedef io_object_t io_connect_t;

#define IO_OBJECT_NULL ((io_object_t)0)
#define kIOReturnSuccess KERN_SUCCESS

extern const mach_port_t kIOMasterPortDefault;

CFMutableDictionaryRef IOServiceMatching(const char* className);

/* Consumes the reference to the dictionary. */
io_service_t IOServiceGetMatchingService(mach_port_t mainPort, CFDictionaryRef matching);

kern_return_t IOServiceOpen(io_service_t service, task_port_t task, uint32_t type, io_connect_t* connection);
kern_return_t IOServiceClose(io_connect_t connection);
kern_return_t IOObjectRelease(io_object_t object);

kern_return_t IOConnectCallScalarMethod(mach_port_t connection, uint32_t selector, const uint64_t* input,
                                        uint32_t inputCount, uint64_t* output, uint32_t* outputCount);

kern_return_t IOConnectCallMethod(mach_port_t connection, uint32_t selector, const uint64_t* input,
                                  uint32_t inputCount, const void* inputStruct, size_t inputStructSize,
                                  uint64_t* output, uint32_t* outputCount, void* outputStruct,
                                  size_t* outputStructSize);

#ifdef __cplusplus
}
#endif
