/* The results of user-client calls that this project tells apart. */
#pragma once

#include <IOKit/IOKitLib.h>

#define kIOReturnNoDevice ((IOReturn)0xe00002c0)
#define kIOReturnNotPrivileged ((IOReturn)0xe00002c1)
#define kIOReturnExclusiveAccess ((IOReturn)0xe00002c5)
#define kIOReturnStillOpen ((IOReturn)0xe00002d2)
#define kIOReturnBusy ((IOReturn)0xe00002d5)
#define kIOReturnNoSpace ((IOReturn)0xe00002db)
#define kIOReturnNotPermitted ((IOReturn)0xe00002e2)
