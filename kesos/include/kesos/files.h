#pragma once  // since 0.1

#include <dirent.h>
#include <stddef.h>
#include <sys/types.h>
#include <time.h>

#include "kesos/export.h"

KESOS_EXPORT_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* Files and directories. Paths have at most 1023 bytes where one is composed of parts: what does not fit
 * fails with ENAMETOOLONG, and nothing is done to a shortened name. A null name fails with EFAULT. Failures
 * leave errno; nothing is printed. Links are followed, also where a tree is deleted. Any thread may call
 * these; a search is for one thread at a time. */

/** Size of the buffers that receive names. */
#define KESOS_PATH_SIZE 1024

/** Whether there is something of that name. */
int KesOsFileExists(const char* name);

/** Whether there is a directory of that name. */
int KesOsIsDir(const char* name);

/** Makes sure that a directory exists, with all those above it; new ones get mode 0700. Parts are separated
 * by "/" or "\", but the last character belongs to the last part whatever it is: "a\" makes "a" and then a
 * directory called "a\". 1 when it is there now, as far as can be said: for parts that existed, whether the
 * last one is writable. Who makes the same path at the same time does not disturb. */
int KesOsChkAndCreateDir(const char* path);

/** The size of a file in bytes, cut to 32 bits; 0 in *size when it fails. */
int KesOsGetFileSize(const char* name, unsigned int* size);

/** When a file was last read and changed. Both outputs may be null. */
int KesOsGetFileTime(const char* name, time_t* accessTime, time_t* modifyTime);

/** Sets both times of a file to t. */
int KesOsSetFileTime(const char* name, time_t t);

/** Copies a file's content, mode (for a new file, less the umask), owner, group and times (in seconds).
 * With failIfExists a destination that is there already gives 0 (EEXIST); otherwise it is overwritten, and a
 * file that is copied onto itself emptied. Set-id bits are taken from an existing file before anything is
 * written to it, and 0 is the result when that is not permitted; a new file gets those of the source when it
 * is complete and has its owner. When the owner cannot be kept the result is 0, with the content copied and
 * the times not. */
int KesOsCopyFile(const char* from, const char* to, char failIfExists);

/** Deletes a file. */
int KesOsDeleteFile(const char* name);

/** Deletes an empty directory. */
int KesOsDeleteDir(const char* name);

/** Renames a file or directory, as rename() does: what is called `to` already is replaced. */
int KesOsRenameFile(const char* from, const char* to);

/** Deletes a directory with everything below it, and BEHIND LINKS: a link to a directory has that
 * directory's content deleted, and stays. A link to nothing ends the work in its directory. The result is
 * that of removing `path` itself, so 0 whenever something stayed. */
int KesOsDeleteDirTree(const char* path);

/** A search in a directory, owned by the caller: filled by KesOsFindFirst, released by KesOsFindClose. */
typedef struct KesOsFind {
  DIR* dir;                      /**< null when closed */
  char path[KESOS_PATH_SIZE];    /**< of the directory */
  char pattern[KESOS_PATH_SIZE]; /**< of the names in it */
} KesOsFind;

/** What a search reports about an entry; links are followed. */
enum { KESOS_TYPE_FILE = 1, KESOS_TYPE_DIRECTORY = 2 };

/** Starts a search and reports its first match, in the order of the directory. The pattern is a directory
 * (all its entries), a file, or a directory's path and a name with one "*"; "*", "*.*" and "*." match every
 * entry but "." and "..". `name` receives up to 1024 bytes; the other outputs may be null. 0, with the
 * search closed, when nothing matches. */
int KesOsFindFirst(KesOsFind* find, const char* pattern, char* name, unsigned int* type, time_t* modifyTime,
                   off_t* size);

/** The next match; 0 at the end, and at an entry that cannot be looked at, such as a link to nothing. */
int KesOsFindNext(KesOsFind* find, char* name, unsigned int* type, time_t* modifyTime, off_t* size);

/** Ends a search; 1 also when it is closed already. */
int KesOsFindClose(KesOsFind* find);

/** Creates a private directory in $TMPDIR, or /tmp, and stores its path in buf (size bytes). */
int KesOsCreateTempdir(char* buf, size_t size);

/** The directory of the running program in path (size bytes), and, when wanted, its file name in name (cut
 * to nameSize bytes) and errno in *error. Works where the system has /proc; fails with ENOENT elsewhere. */
int KesOsGetModuleFileName(char* path, unsigned int size, char* name, unsigned int nameSize,
                           unsigned int* error);
/** The directory alone. */
int KesOsGetModulePath(char* path, unsigned int size, unsigned int* error);

/** Always 0. */
int KesOsGetDiskDescriptor(void);

/** Replaces a program's name by its path, which it returns the length of. The six usual directories from
 * /sbin on come before $PATH; what counts is the owner's permission to execute. A name with "/" is left as
 * it is. 0, and the name as it was, when there is none. The buffer has at least 1024 bytes. */
size_t KesOsdGetPath(char* name);

/** Splits a path at its last "/": what precedes it ("./" when there is none) and what follows ("*" when that
 * is empty). Both buffers have 1024 bytes; a part that does not fit leaves both empty (ENAMETOOLONG). */
void vSplitFileName(const char* path, char* dir, char* file);

#ifdef __cplusplus
}
#endif

KESOS_EXPORT_END
