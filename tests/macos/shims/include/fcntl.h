#pragma once

#include_next <fcntl.h>

// No command of fcntl() here, so that it is refused as on a file system that cannot do it.
#define F_FULLFSYNC 51
