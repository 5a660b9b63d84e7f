#pragma once

#include_next <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif
// The list of untranslated error texts, which the GNU C library gives one by one.
int kes_shim_error_count(void);
const char* const* kes_shim_error_list(void);
#ifdef __cplusplus
}
#endif
#define sys_nerr kes_shim_error_count()
#define sys_errlist kes_shim_error_list()
