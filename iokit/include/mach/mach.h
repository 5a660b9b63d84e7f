/* The part of the platform's <mach/mach.h> that user-client calls need. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef unsigned int natural_t;
typedef natural_t mach_port_name_t;
typedef mach_port_name_t mach_port_t;
typedef mach_port_t task_t;
typedef mach_port_t task_port_t;
typedef int kern_return_t;

#define MACH_PORT_NULL 0

#define KERN_SUCCESS 0
#define KERN_INVALID_NAME 15
#define MACH_SEND_INVALID_DEST 0x10000003

extern mach_port_t mach_task_self_;
#define mach_task_self() mach_task_self_

#ifdef __cplusplus
}
#endif
