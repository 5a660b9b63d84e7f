#pragma once  // since 0.1

#include "kesos/export.h"

KESOS_EXPORT_BEGIN

#include "kesos/waits.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Mutexes. Key 0 makes a recursive mutex of this process; any other key a System V semaphore that every
 * process can open by that key. A keyed mutex belongs to nobody: it is not recursive, any thread of any
 * process may release it, and it stays locked when its holder dies, until somebody waits for it by
 * KesOsMutexWaitEx. Mutexes and events share their keys: with the key of an event comes the event's
 * semaphore. Null handles give 0. Any thread may call these; a handle that is closed must not be in use.
 *
 * The last user removes a keyed object. Users are counted in a shared-memory segment of the whole machine
 * with the key 32777 (0x8009), which nobody else may use:
 * - A process that dies without closing stays counted: its objects outlive it until a later user happens to
 *   be the last, or KesOsRemoveKeyed or a program such as ipcrm removes them.
 * - It counts 60 objects of all processes. One more works as well, but the first who closes it removes it.
 * - A child made by fork() is a user from the first object on that it opens itself. It may use the handles
 *   it inherited for as long as their parent does; closing one frees the child's copy and changes nothing. */

/** A mutex, local or keyed. */
typedef struct KesOsMutex KesOsMutex;

/** Creates a mutex, or opens the keyed one that exists. 1 with a handle in *out, which KesOsMutexClose frees,
 * or 0 with null; of a keyed one errno then says why (EACCES, ENOSPC, ENOMEM, ...). A new one is unlocked.
 * One that another process removes at the moment is created anew, as far as that can be seen. */
int KesOsMutexCreate(KesOsMutex** out, unsigned int key);

/** Opens an existing keyed mutex; 0 with null for key 0 and when there is none. */
int KesOsMutexOpen(KesOsMutex** out, unsigned int key);

/** Gives the mutex back and frees the handle; the last user removes the semaphore. A local mutex is waited
 * for until nobody holds it: closing one that the caller holds never returns. 0 when the semaphore is not
 * counted and cannot be removed; the handle is freed all the same. */
int KesOsMutexClose(KesOsMutex* mutex);

/** Locks the mutex. The timeout is 0xFFFFFFFF (wait without limit) or, keyed only, 0 (try once); any other
 * ends the process by exit(): with status 1 and a message on standard error for a local mutex, with status 0
 * and one on standard output for a keyed mutex. 1 with *state 1: locked; 1 with *state 999: not locked, the
 * timeout being 0, whatever the reason; 0 with *state 0: failed, as when the semaphore was removed. `state`
 * may be null. A keyed wait that a signal interrupts is repeated after 50 ms, unless the process is shutting
 * down before or after them: then it has failed. */
int KesOsMutexWait(KesOsMutex* mutex, unsigned int timeoutMs, unsigned int* state);

/* With a limit, and safe from holders that die. Locks of these calls and of those above are the same, by
 * whatever call they were made, and KesOsMutexRelease gives back both.
 *
 * The holder of a keyed mutex is the process that locked it last, by whatever call. It has died when there is
 * no such process, only its status, or another one with its id: how to tell that is noted by
 * KesOsMutexWaitEx, so of one that locked with KesOsMutexWait it is not seen when another process was given
 * its id. What does not go with this: to let another process release what one has locked, and end meanwhile;
 * to lock, fork(), and go on in the child while the parent ends; to release for a holder that died, by
 * KesOsMutexRelease, while others are in KesOsMutexWaitEx; processes that do not see each other's ids (pid
 * namespaces): there nobody is taken for dead. A thread that ends with a lock is not noticed.
 *
 * The first call here with a key makes a shared-memory segment of the machine with the key 32778 (0x800A), 4
 * KB for what is noted about holders. It stays until the machine is restarted. */

/** KesOsMutexCreate, which says in *created (which may be null) whether the mutex is new, and so unlocked, or
 * was opened as it is. One that another process has just made, but given no value yet, is waited for; after a
 * second its maker has died, and the mutex is made usable and counts as new. errno also as of shmget() and
 * shmat(). */
int KesOsMutexCreateEx(KesOsMutex** out, unsigned int key, int* created);

/** Locks the mutex, within so many milliseconds: 0 tries once, KESOS_INFINITE has no limit. 1 when it is
 * locked now: *state (which may be null) is KESOS_WAIT_DONE, or KESOS_WAIT_HOLDER_DIED when the holder of a
 * keyed mutex has died. That is told to one of those who wait, who is the new holder then, and up to 0.1 s
 * later than it could be; when the new holder dies as well, to the next. 0 with errno otherwise: ETIMEDOUT
 * (KESOS_WAIT_TIMED_OUT), EIDRM or EINVAL when a keyed mutex was removed, EACCES, EINTR when the process is
 * shutting down, EINVAL for no handle, and of the segment as above (KESOS_WAIT_FAILED). Signals do not end
 * it.
 *
 * The limit is kept by a clock that nobody sets. On Linux who waits is woken by the release. macOS has
 * neither semaphores nor mutexes with a limit: there who waits looks every 10 ms, with a last look at the
 * limit, so that a lock may be had up to 10 ms after it is free, and those in KesOsMutexWait are served
 * first. */
int KesOsMutexWaitEx(KesOsMutex* mutex, unsigned int timeoutMs, unsigned int* state);

/** Unlocks the mutex. Releasing a keyed mutex that nobody holds succeeds and changes nothing. */
int KesOsMutexRelease(KesOsMutex* mutex);

#ifdef __cplusplus
}
#endif

KESOS_EXPORT_END
