#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Mutexes. Key 0 makes a recursive mutex of this process; any other key a System V semaphore that every
 * process can open by that key, and that the last user removes. A keyed mutex belongs to nobody: it is not
 * recursive, any thread of any process may release it, and it stays locked when its holder dies. A child
 * made by fork() opens it anew: closing what it inherited would take its parent's use back. Null handles
 * give 0. */

typedef struct KesOsMutex KesOsMutex;

/** Creates a mutex, or opens the keyed one that exists. 1 with a handle in *out, which KesOsMutexClose frees,
 * or 0 with null. A new one is unlocked. */
int KesOsMutexCreate(KesOsMutex** out, unsigned int key);

/** Opens an existing keyed mutex; 0 with null for key 0 and when there is none. */
int KesOsMutexOpen(KesOsMutex** out, unsigned int key);

/** Gives the mutex back and frees the handle; the last user removes the semaphore. A local mutex is waited
 * for until nobody holds it. */
int KesOsMutexClose(KesOsMutex* mutex);

/** Locks the mutex. The timeout is 0xFFFFFFFF (wait without limit) or, keyed only, 0 (try once); any other
 * ends the process with a message. 1 with *state 1: locked; 1 with *state 999: not locked, the timeout being
 * 0; 0 with *state 0: failed. `state` may be null. A keyed wait that a signal interrupts is repeated after
 * 50 ms, unless the process is shutting down. */
int KesOsMutexWait(KesOsMutex* mutex, unsigned int timeoutMs, unsigned int* state);

/** Unlocks the mutex. Releasing a keyed mutex that nobody holds succeeds and changes nothing. */
int KesOsMutexRelease(KesOsMutex* mutex);

#ifdef __cplusplus
}
#endif
