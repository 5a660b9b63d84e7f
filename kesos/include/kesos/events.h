#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Events, which threads wait for and which reset themselves when a wait ends. Key 0 makes an event of this
 * process, whose setting releases everyone who waits; any other key a System V semaphore that every process
 * can open by that key, whose setting releases one, and that the last user removes; a child made by fork()
 * opens it anew. Null handles, and those with all bits set, give 0. */

typedef struct KesOsEvent KesOsEvent;

/** Creates an event, or opens the keyed one that exists. 1 with a handle in *out, which KesOsEventClose
 * frees, or 0 with null. A new one is not set. */
int KesOsEventCreate(KesOsEvent** out, unsigned int key);

/** Opens an existing keyed event; 0 with null for key 0 and when there is none. */
int KesOsEventOpen(KesOsEvent** out, unsigned int key);

/** Gives the event back and frees the handle; the last user removes the semaphore. Nobody may wait any more.
 */
int KesOsEventClose(KesOsEvent* event);

/** Sets the event. A keyed event that cannot be set is reported on standard error, and the result is 1. */
int KesOsEventSet(KesOsEvent* event);

/** Resets a local event. On a keyed event it adds one to the semaphore: it releases one waiter more. */
int KesOsEventReset(KesOsEvent* event);

/** Waits until the event is set, and resets it. The timeout is 0xFFFFFFFF (without limit), 0 (only look), or
 * with a local event any number of milliseconds by the wall clock; on a keyed event that ends the process
 * with a message. *state (which may be null) is 1: set; 999: timed out; 0: failed. The result is 1 for
 * set, 0 for failed, and for timed out 1 with a keyed event and 0 with a local one. A keyed wait that a
 * signal interrupts is repeated after 50 ms, unless the process is shutting down. */
int KesOsEventWait(KesOsEvent* event, unsigned int timeoutMs, unsigned int* state);

#ifdef __cplusplus
}
#endif
