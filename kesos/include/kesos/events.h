#pragma once  // since 0.1

#include "kesos/export.h"

KESOS_EXPORT_BEGIN

#include "kesos/waits.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Events, which threads wait for and which reset themselves when a wait ends. Key 0 makes an event of this
 * process, whose setting releases everyone who waits; any other key a System V semaphore that every process
 * can open by that key, and whose setting releases one. Who uses a keyed event, and who removes it, is
 * counted together with the mutexes, whose keys are the same, too: see mutexes.h for a process that dies, for
 * more than 60 objects and for children made by fork(). Null handles, and those with all bits set, give 0.
 * Any thread may call these; a handle that is closed must not be in use. */

/** An event, local or keyed. */
typedef struct KesOsEvent KesOsEvent;

/** Creates an event, or opens the keyed one that exists. 1 with a handle in *out, which KesOsEventClose
 * frees, or 0 with null; of a keyed one errno then says why. A new one is not set. */
int KesOsEventCreate(KesOsEvent** out, unsigned int key);

/** Opens an existing keyed event; 0 with null for key 0 and when there is none. */
int KesOsEventOpen(KesOsEvent** out, unsigned int key);

/** Gives the event back and frees the handle; the last user removes the semaphore. Nobody may wait any more:
 * while somebody waits for a local event, this does not return. 0 when the semaphore is not counted and
 * cannot be removed; the handle is freed all the same. */
int KesOsEventClose(KesOsEvent* event);

/** Sets the event. A keyed event that cannot be set is reported on standard error, and the result is 1. */
int KesOsEventSet(KesOsEvent* event);

/** Resets a local event. On a keyed event it adds one to the semaphore: it releases one waiter more. */
int KesOsEventReset(KesOsEvent* event);

/** Waits until the event is set, and resets it. The timeout is 0xFFFFFFFF (without limit), 0 (only look), or
 * with a local event any number of milliseconds by the wall clock; on a keyed event that ends the process by
 * exit() with status 0 and a message on standard output. A keyed wait that a signal interrupts is repeated
 * after 50 ms, unless the process is shutting down before or after them. The result, and *state (which may be
 * null):
 *
 *                                         local event    keyed event
 *     it was set                          1, 1           1, 1
 *     the time is over                    0, 999         -
 *     timeout 0 and not set               0, 999         1, 999
 *     timeout 0 and any failure           0, 0           1, 999
 *     without limit: it was removed, or
 *     the process is shutting down        -              0, 0
 *     no handle                           0, 0           0, 0 */
int KesOsEventWait(KesOsEvent* event, unsigned int timeoutMs, unsigned int* state);

/** KesOsEventCreate, which says in *created (which may be null) whether the event is new, and so not set, or
 * was opened as it is. */
int KesOsEventCreateEx(KesOsEvent** out, unsigned int key, int* created);

/** Waits until the event is set, and resets it, at most so many milliseconds by a clock that nobody sets: 0
 * only looks, KESOS_INFINITE has no limit. 1 when it was set; 0 with errno otherwise: ETIMEDOUT
 * (KESOS_WAIT_TIMED_OUT), EIDRM or EINVAL when a keyed event was removed, EACCES, EINTR when the process is
 * shutting down and a signal comes, EINVAL for no handle (KESOS_WAIT_FAILED). Signals do not end it. What the
 * systems do is as with KesOsMutexWaitEx: macOS looks for keyed events every 10 ms. */
int KesOsEventWaitEx(KesOsEvent* event, unsigned int timeoutMs, unsigned int* state);

#ifdef __cplusplus
}
#endif

KESOS_EXPORT_END
