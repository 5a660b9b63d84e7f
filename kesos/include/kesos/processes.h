#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Programs, started from a command line. They get the signal mask that this process started with, and no
 * descriptor that the libraries opened.
 *
 * KesOsCreateProcess, ...Sw and ...Ex use the shell, and the process collector of the platform library, which
 * reaps every child of the process while one of its own runs. KesOsCreateProcessAsyn uses neither: in one
 * process do not mix the two, or the collector takes its children away. */

/** Flag of KesOsCreateProcessSw and KesOsCreateProcessEx: do not wait for the program. */
#define KESOS_PROCESS_ASYNC 0x10000U

/** Runs a command line through /bin/sh and waits for it. The program is searched on $PATH; it may be quoted,
 * and white space in its path is escaped for the shell, which sees the rest as it is. 1 when the exit code is
 * 0. The exit code is -1 when nothing could be started, 255 when a signal ended the shell, else its exit
 * status; with the flag, 0 once the shell is started. */
int KesOsCreateProcess(const char* cmd);
int KesOsCreateProcessSw(const char* cmd, unsigned int flags);
int KesOsCreateProcessEx(const char* cmd, unsigned int flags, int* exitCode);

/** A child process; freed by KesOsProcessWait, and by nothing else. */
typedef struct KesOsProcess KesOsProcess;

/** Starts a program without a shell. The command line is taken apart by parseProcessCommandline; the flags
 * are ignored. With `out`, 1 once the child is forked; a program that cannot be started shows as exit code
 * 127. Without `out` the program runs in a session of its own and is nobody's child; 1 when it was forked. */
int KesOsCreateProcessAsyn(const char* cmd, unsigned long flags, KesOsProcess** out);

/** Whether the child has not ended yet. */
int KesOsProcessIsRunning(KesOsProcess* process);

/** Waits for the child's end, stores its exit status (0 to 255; 0 when a signal ended it) and frees the
 * handle. 0 when somebody else has reaped the child; the handle is freed all the same. */
int KesOsProcessWait(KesOsProcess* process, unsigned int* exitCode);

/** Sends the child SIGTERM; 0 when it has ended. */
int KesOsTerminateProcess(KesOsProcess* process);

/** Takes a command line apart. Only spaces separate; "..." keeps them, with \" for a quote and any other
 * backslash as it is; a quote that is not closed reaches to the end. The first word is the program, quotes
 * and all. The result is an array of 4097 pointers: the program, a copy of it, the arguments, null; the array
 * and each text are the caller's to free(). Null with errno E2BIG for more than 4094 arguments. */
char** parseProcessCommandline(const char* cmd);

/** Closes a descriptor. */
int KesOsCloseHdl(int fd);

#ifdef __cplusplus
}
#endif
