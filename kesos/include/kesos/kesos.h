#pragma once  // since 0.1

/* The flat interface to the operating system: plain functions with unmangled names, for C and C++. They
 * never throw; they return 1 for success and 0 for failure where nothing else is said, and hand out handles
 * through out-pointers. Times are in milliseconds. */

#include "kesos/console.h"
#include "kesos/events.h"
#include "kesos/files.h"
#include "kesos/ipc.h"
#include "kesos/libraries.h"
#include "kesos/mappings.h"
#include "kesos/mutexes.h"
#include "kesos/processes.h"
#include "kesos/strings.h"
#include "kesos/threads.h"
#include "kesos/time.h"
#include "kesos/waits.h"
