#include "os/FileCalls.h"

#include <fcntl.h>
#include <unistd.h>

namespace kes::os {

int syncToDevice(int fd) { return ::fsync(fd); }

FileTimes timesOf(const struct stat& status) noexcept { return {{status.st_atim, status.st_mtim}}; }

int makePipe(int (&ends)[2]) noexcept { return ::pipe2(ends, O_CLOEXEC); }

}  // namespace kes::os
