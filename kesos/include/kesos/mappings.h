#pragma once  // since 0.1

#include <stddef.h>
#include <sys/ipc.h>
#include <sys/types.h>

#include "kesos/export.h"

KESOS_EXPORT_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* Memory that processes share: a mapped file, or a System V shared-memory segment. The keys 32777 and
 * 32778 (0x8009, 0x800A) are taken: their segments hold what is known of the users and holders of keyed
 * mutexes and events. Any thread may call these; a record belongs to one thread at a time. */

/** A mapping. Filled by KesOsMmfCreate and KesOsMmfOpen, released by KesOsMmfClose. */
typedef struct KesOsMmf {
  int fd;            /**< the mapped file; -1 for a segment */
  int shmid;         /**< the segment; -1 for a file */
  unsigned int size; /**< length in bytes */
  void* address;     /**< where it starts */
  int created;       /**< 1 when this call created the file or segment */
  int error;         /**< errno of the last failure */
} KesOsMmf;

/** Creates or opens a mapping of at least `size` bytes. With a file name, the file is created (mode 0600)
 * when it is missing, grown with zero bytes when it is shorter, and mapped whole. Without (null or empty),
 * a segment with this key and size is created, or the existing one attached as it is: `error` is then
 * EEXIST. One that another process removes at the moment is created anew, as far as that can be seen: not
 * when it goes after it was attached, nor when that happens a hundred times over. 1, or 0 with the reason in
 * `error`. */
int KesOsMmfCreate(KesOsMmf* mapping, unsigned int size, const char* fileName, key_t key);

/** Attaches the existing segment with this key; `reserved` is ignored. When a segment cannot be attached it
 * is removed, as far as the caller may do that. 1, or 0 with the reason in `error`. */
int KesOsMmfOpen(KesOsMmf* mapping, unsigned long reserved, key_t key);

/** Unmaps a file; detaches a segment, which is removed with its last attachment. A closed mapping gives 1. */
int KesOsMmfClose(KesOsMmf* mapping);

/** Writes the pages that hold `length` bytes from `address` back to the file, and waits for that. The first
 * argument is ignored. */
int KesOsMmfFlush(KesOsMmf* mapping, void* address, size_t length);

#ifdef __cplusplus
}
#endif

KESOS_EXPORT_END
