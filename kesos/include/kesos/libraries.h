#pragma once  // since 0.1

#include "kesos/export.h"

KESOS_EXPORT_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* Dynamic libraries. The texts behind `error` are the loader's: valid until the calling thread's next call.
 */

/** Loads a library, its symbols bound when they are used; null when it cannot be loaded or the name is null
 * or empty. */
void* KesOsDlLoad(const char* file);
/** The same, which then stores the loader's message (it may be null) in *error. */
void* KesOsDlLoadEx(const char* file, const char** error);

/** The address of a symbol; null when there is none, the handle is null or the name is null or empty. */
void* KesOsDlGetAddr(void* handle, const char* symbol);
/** The same, which then stores the loader's message (it may be null) in *error. */
void* KesOsDlGetAddrEx(void* handle, const char* symbol, const char** error);

/** Gives a library back; a null handle gives 1. */
int KesOsDlFree(void* handle);

#ifdef __cplusplus
}
#endif

KESOS_EXPORT_END
