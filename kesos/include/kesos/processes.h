#pragma once  // since 0.1

#include "kesos/export.h"

KESOS_EXPORT_BEGIN

#include <stddef.h>

#include "kesos/waits.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Programs, started from a command line. They get the signal mask that this process started with, and no
 * descriptor that the libraries opened.
 *
 * KesOsCreateProcess, ...Sw and ...Ex use the shell, and the process collector of the platform library, which
 * reaps every child of the process while one of its own runs. KesOsCreateProcessAsyn uses neither: in one
 * process do not mix the two, or the collector takes its children away. Any thread may start programs. */

/** Flag of KesOsCreateProcessSw and KesOsCreateProcessEx: do not wait for the program. */
#define KESOS_PROCESS_ASYNC 0x10000U

/** Runs a command line through /bin/sh and waits for it. The program is searched on $PATH; it may be quoted,
 * and white space in its path is escaped for the shell, which sees the rest as it is. 1 when the exit code is
 * 0. The exit code is -1 until it is known and when nothing could be started, 255 when a signal ended the
 * shell, else its exit status: 125 also when /bin/sh could not be executed, 126 and 127 also when the shell
 * could not execute the program. With the flag it is 0 once the shell is started. In a notification of the
 * platform library, on the collector's thread, use the flag: without it the shell is started, too, but cannot
 * be waited for, and the exit code is -1. */
int KesOsCreateProcess(const char* cmd);
/** KesOsCreateProcess with a flag, or 0. */
int KesOsCreateProcessSw(const char* cmd, unsigned int flags);
/** The same, which tells the exit code; `exitCode` may be null. */
int KesOsCreateProcessEx(const char* cmd, unsigned int flags, int* exitCode);

/** A child process; freed by KesOsProcessWait or KesOsProcessClose. For one thread at a time. */
typedef struct KesOsProcess KesOsProcess;

/** Starts a program without a shell. The command line is taken apart by parseProcessCommandline; the flags
 * are ignored. With `out`, 1 once the child is forked, or 0 with null in *out. A program that cannot be
 * started, or a command line that is null or too long to be taken apart, shows as exit code 127. The child
 * that fails so first closes all its descriptors and then calls exit(): this program's exit handlers and the
 * destructors of its static objects run in it, without the other threads, and what they write is lost.
 * Without `out` the program runs in a session of its own and is nobody's child; 1 when it was forked. If it
 * cannot be started then, nobody is told, and no exit handler runs. Either way 0 with errno ENOMEM when there
 * is no memory to take the command line apart, or for the handle; then nothing is forked. */
int KesOsCreateProcessAsyn(const char* cmd, unsigned long flags, KesOsProcess** out);

/** What a new process gets besides a command line. Begin with KESOS_PROCESS_OPTIONS, and change what is to be
 * otherwise. New versions of the library may add members at the end: `size` says which this program knows. */
typedef struct KesOsProcessOptions {
  size_t size; /**< of this record in bytes */
  const char* const*
      arguments; /**< in place of a command line, as they are: the program, its arguments, null */
  const char* const* environment; /**< NAME=value texts and null; null: this process's environment */
  const char* directory;          /**< where the program begins; null: where this process is */
  int standardInput;  /**< a descriptor that becomes its stream; -1: this process's stream. It stays the */
  int standardOutput; /**< caller's to close. Any may be given twice, or be 0, 1 or 2; the same for the */
  int standardError;  /**< other streams */
} KesOsProcessOptions;

/** What a record of options begins with: nothing is otherwise than in this process. */
#define KESOS_PROCESS_OPTIONS \
  { sizeof(KesOsProcessOptions), NULL, NULL, NULL, -1, -1, -1 }

/** KesOsCreateProcessAsyn with options (which may be null), and with an answer when the program cannot be
 * started: 0 with errno, and nothing is left of the child, nor do exit handlers run in it. Either the command
 * line or the arguments are given. A program without "/" in its name is searched on this process's $PATH; a
 * relative path begins in the new directory. A file that is no program is run by /bin/sh. The child keeps
 * descriptors that are not close-on-exec.
 *
 * 1 with a handle in *out, or 0 with null. errno: ENOENT when there is no such program or directory, EACCES,
 * ENOTDIR, ... as of exec and chdir, EBADF for a stream that is not open, EINVAL for no command line or two
 * or a `size` that no version had, E2BIG for members that this version does not know or arguments that are
 * too long, EFAULT without `out`, EAGAIN, ENOMEM, EMFILE, ENFILE. */
int KesOsCreateProcessAsynEx(const char* cmd, const KesOsProcessOptions* options, KesOsProcess** out);

/** The id of the child, also after its end; 0 for a null handle. Once the end was told the id may be another
 * process's. */
int KesOsProcessId(const KesOsProcess* process);

/** Waits for the child's end, at most so many milliseconds (0: only looks; KESOS_INFINITE: without limit),
 * and tells how it ended: its exit status (0 when a signal ended it), and that signal (else 0); both may be
 * null. The handle stays, and says the same when asked again. The limit is kept by a clock that nobody sets.
 * 0 with errno: ETIMEDOUT, ECHILD when somebody else has reaped it, EINVAL for a null handle. */
int KesOsProcessWaitEx(KesOsProcess* process, unsigned int timeoutMs, unsigned int* exitCode, int* signal);

/** Frees the handle and waits for nothing. A child that still runs goes on; when it ends, the system keeps
 * its status until this process ends or asks for it by waitpid(). 0 for a null handle. */
int KesOsProcessClose(KesOsProcess* process);

/** Whether the child has not ended yet. One that somebody else has reaped counts as running for ever; only
 * KesOsProcessWait tells. */
int KesOsProcessIsRunning(KesOsProcess* process);

/** Waits for the child's end, stores its exit status (0 to 255; 0 when a signal ended it) and frees the
 * handle. 0 when somebody else has reaped the child; the handle is freed all the same. */
int KesOsProcessWait(KesOsProcess* process, unsigned int* exitCode);

/** Sends the child SIGTERM; 0 when it has ended. Once somebody else has reaped it, its id may be another
 * process's. */
int KesOsTerminateProcess(KesOsProcess* process);

/** Takes a command line apart. Only spaces separate; "..." keeps them, with \" for a quote and any other
 * backslash as it is; a quote that is not closed reaches to the end. The first word is the program, quotes
 * and all. The result is an array of 4097 pointers: the program, a copy of it, the arguments, null; the array
 * and each text are the caller's to free(). Null with errno E2BIG for more than 4094 arguments, ENOMEM
 * without memory, EFAULT for a null line; any other line can be taken apart, an empty one included. */
char** parseProcessCommandline(const char* cmd);

/** Closes a descriptor. */
int KesOsCloseHdl(int fd);

#ifdef __cplusplus
}
#endif

KESOS_EXPORT_END
