#pragma once  // since 0.1

#include "kesos/export.h"

KESOS_EXPORT_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/** What new semaphores and shared-memory segments get: the permission bits (0666 at first) and, unless both
 * are 0xFFFFFFFF (as at first), the owner and group; 0xFFFFFFFF or 0xFFFFFFFE then stands for the caller's
 * own. Call before threads are started. */
void KesOsSetIpcPerms(int mode, unsigned int uid, unsigned int gid);

/** The value of a System V semaphore; -1 with errno when it cannot be read. Any thread may call. */
int KesOsSemaphoreVal(int semid);

/** Removes the mutex or event with this key, for all processes, whoever uses it: waits for it fail, and the
 * next create makes a new one. Its handles are closed as always. When no process that lives uses keyed
 * objects, those that died are not counted any more. 1, or 0 with errno: EINVAL for key 0, ENOENT when there
 * is none, EPERM when it is another user's. Any thread may call. */
int KesOsRemoveKeyed(unsigned int key);

#ifdef __cplusplus
}
#endif

KESOS_EXPORT_END
