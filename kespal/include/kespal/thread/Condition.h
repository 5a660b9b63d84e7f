#pragma once

// The class lies in the system half, as its operations are inlined into their callers.
#include "kespal/os/posix/thread/Condition.h"
