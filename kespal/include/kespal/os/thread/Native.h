#pragma once  // since 0.1

// What the systems' threads do differently: the one choice that a header has to make. Each half offers,
// in kes::os: nativeThreadId, nameThread, isForcedUnwind, waitOn and waitUntil.
#ifdef __APPLE__
#include "kespal/os/darwin/thread/Native.h"
#else
#include "kespal/os/linux/thread/Native.h"
#endif
