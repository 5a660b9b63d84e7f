#pragma once  // since 0.1

#include "kesos/export.h"

KESOS_EXPORT_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* Single keys from standard input, which must be a terminal. Both switch the terminal for the duration of
 * the call and back again: not for two threads at once. With echo 0 the key is not shown. KesOsGetCh reads
 * through stdio and KesOsGetChNoWait does not: a program that uses both should make stdin unbuffered. */

/** Waits for a key, without Return. The key's code (0 to 255), or -1 (EOF) when the terminal cannot be read,
 * switched or restored. */
int KesOsGetCh(char echo);

/** Takes a key that arrives within 100 microseconds. The key's code; 0 when none came (a NUL key looks the
 * same); -1 when the terminal cannot be watched, switched or restored; 1 when a key was announced but could
 * not be read. */
int KesOsGetChNoWait(char echo);

#ifdef __cplusplus
}
#endif

KESOS_EXPORT_END
