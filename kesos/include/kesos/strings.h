#pragma once  // since 0.1

#include <stddef.h>

#include "kesos/export.h"

KESOS_EXPORT_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* Bounded string functions. `size` is the capacity of the destination in bytes, terminator included. Nothing
 * is written beyond it, and nothing of a source is read beyond its terminator. All but sprintf_kes return the
 * destination, or null when the destination or the source is null; a capacity of 0 leaves the destination
 * untouched, and nothing is read. They never fail, set no errno, and may be called by any thread. Source and
 * destination must not overlap. */

/** Copies as much of src as fits and terminates it. At most `size` bytes of src are read. */
char* strcpy_kes(char* dst, size_t size, const char* src);

/** The length of s, but at most max: with max 0, or of a null pointer, 0. */
size_t strlen_kes(const char* s, size_t max);

/** Copies at most n bytes of src, as many as fit, and terminates them; no more than n bytes of src are read,
 * so it needs no terminator. With n the largest size_t the destination stays untouched. */
char* strncpy_kes(char* dst, size_t size, const char* src, size_t n);

/** Appends src, cut to fit. A destination that is already longer than `size` stays untouched; one of
 * exactly `size` bytes loses its last byte to the terminator. To tell the two apart, of a destination without
 * a terminator in its `size` bytes the one behind them is read, too. */
char* strcat_kes(char* dst, size_t size, const char* src);

/** Appends at most n bytes of src. When the whole of src would not fit, the last byte of the destination
 * becomes a terminator, however few bytes were appended. When it would, zero bytes follow up to n bytes in
 * all (never beyond the capacity), and when src has n bytes or more NO terminator is set: clear the
 * destination beforehand. With n 0 the destination stays untouched. The destination is read as by strcat_kes;
 * src is read up to its terminator, also beyond n, or as far as there is room: this is not for a source
 * without one. */
char* strncat_kes(char* dst, size_t size, const char* src, size_t n);

/** Formats as snprintf does. Returns the length that the whole text has, which is `size` or more when it was
 * cut; with size 0 nothing is written and the result is 0. When the format cannot be converted, the result
 * is the length of what is in dst. A null dst with a size only measures. */
#ifdef __GNUC__
__attribute__((format(printf, 3, 4)))
#endif
int sprintf_kes(char* dst, size_t size, const char* fmt, ...);

/** Makes s the empty string; null is ignored. */
void strclear(char* s);

/** Converts the letters a to z to upper case, in place, in no locale but C's. Returns s, also for null. */
char* strupr(char* s);

/** Converts the letters A to Z to lower case, in the same way. */
char* strlwr(char* s);

#ifdef __cplusplus
}
#endif

KESOS_EXPORT_END
