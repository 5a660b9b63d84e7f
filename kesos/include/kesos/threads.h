#pragma once  // since 0.1

#include <pthread.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#include "kesos/export.h"

KESOS_EXPORT_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* Plain detached threads, about which the layer keeps no books: a handle is valid only while its thread
 * runs, and clearing it in time is the caller's business. A state word is an unsigned int of the caller's
 * that both sides look at: 0 not running, 1 running, 3 asked to stop. The thread watches it and sets it
 * back to 0 as the last thing it does. */

/** What a thread runs. What it returns is lost. */
typedef void* (*KesOsThreadRoutine)(void* arg);
/** What KesOsThreadStop calls to wake a thread that is to stop. */
typedef void (*KesOsStopCallback)(void* arg);

/** Starts a detached thread. A stackSize of 0 (bytes) means the system's default, but at most 262144; other
 * sizes are taken as they are, and refused below the system's minimum (or, on some systems, when they are
 * no multiple of a page). The system may hand out a larger stack that an ended thread has left. 1, or 0
 * with *thread 0. */
int KesOsThreadBegin(pthread_t* thread, KesOsThreadRoutine start, unsigned int stackSize, void* arg);

/** Ends the calling thread, with the value 1. */
void KesOsThreadEnd(void);

/** Cancels the thread, and clears the handle when that succeeds. A thread that waits for a keyed mutex or
 * event goes on until that wait ends. */
void KesOsThreadCancel(pthread_t* thread);

/** Starts a thread with a default stack unless its state word says that it is there already (then 1, and
 * nothing is started). The state word becomes 1 before the thread runs. `out` receives the handle of a
 * thread that was started. `out` and `state` may be null. */
int KesOsThreadStart(pthread_t* out, unsigned int* state, KesOsThreadRoutine start, void* arg);

/** Stops a thread. With a handle the thread is cancelled and its state set to 0: true. Otherwise the state
 * word becomes 3, the callback is called, and the state is looked at every 100 ms, `tries` times (0: as
 * good as for ever); false when it is still 3 then. Without handle and state word, true. */
bool KesOsThreadStop(pthread_t* thread, unsigned int* state, unsigned int tries, KesOsStopCallback callback,
                     void* arg);

/** Names the calling thread for the system's tools; Linux keeps 15 bytes of it. Named so, the main thread of
 * a Linux process renames the process. */
bool KesOsThreadSetName(const char* name);

/** Runs the function that is passed first, once in the life of the process; later calls do nothing,
 * whatever they pass. Who calls meanwhile waits for its end. */
int KesOsCallOnce(void (*fn)(void));

#ifdef __cplusplus
}
#endif

KESOS_EXPORT_END
