#include "os/FileCalls.h"

#include <fcntl.h>
#include <unistd.h>

namespace kes::os {

// fsync() leaves the bytes in the cache of the device here. Not every file system can do better.
int syncToDevice(int fd) { return ::fcntl(fd, F_FULLFSYNC) == 0 ? 0 : ::fsync(fd); }

FileTimes timesOf(const struct stat& status) noexcept { return {{status.st_atimespec, status.st_mtimespec}}; }

}  // namespace kes::os
