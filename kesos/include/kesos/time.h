#pragma once  // since 0.1

#include <time.h>

#include "kesos/export.h"

KESOS_EXPORT_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* Up-time, wall clock, sleep, and the flag that says whether the process is shutting down. Any thread may
 * call these; KesOsInit belongs before the first thread is started. */

/** Starts the up-time count, once; KesOsGetUpTime does it too when nobody has. */
void KesOsInit(void);

/** Whole seconds since the up-time count started, by a clock that is never set. 0 when there is no clock. */
unsigned int KesOsGetUpTime(void);

/** The wall clock in milliseconds, in 32 bits: it wraps about every 49.7 days, so only differences count. */
unsigned int KesOsGetTimeInmSec(void);

/** The wall clock in seconds since 1970. */
time_t KesOsGetTimeInSec(void);

/** Says that the process is up, as it is at the start. */
void KesOsSetSystemUp(void);

/** Says that the process is shutting down: waits on semaphores are not repeated after a signal any more. */
void KesOsSetShutdown(void);

/** 1 while the process is up, 0 once it is shutting down. */
int KesOsGetSystemUp(void);

/** Sleeps for ms milliseconds, signals or not. A cancellation point. */
void KesOsSleep(unsigned int ms);

#ifdef __cplusplus
}
#endif

KESOS_EXPORT_END
