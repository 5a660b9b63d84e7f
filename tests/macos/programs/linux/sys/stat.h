#pragma once
#pragma GCC system_header  // or the next line would be warned of

#include_next <sys/stat.h>

// Members by the names that POSIX has for them.
#define st_atim st_atimespec
#define st_mtim st_mtimespec
