#pragma once

#include_next <string.h>

#ifdef __cplusplus
extern "C" {
#endif
// The C library's name for the POSIX form; under the plain name g++ gets another function.
int __xpg_strerror_r(int errnum, char* buffer, size_t size);
#ifdef __cplusplus
}
#endif
#define strerror_r __xpg_strerror_r
