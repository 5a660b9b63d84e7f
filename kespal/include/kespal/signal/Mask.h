#pragma once  // since 0.1

// The class lies in the system half, as its operations are inlined into their callers.
#include "kespal/os/posix/signal/Mask.h"
