#include "os/FileCalls.h"

#include <unistd.h>

namespace kes::os {

int syncToDevice(int fd) { return ::fsync(fd); }

FileTimes timesOf(const struct stat& status) noexcept { return {{status.st_atim, status.st_mtim}}; }

}  // namespace kes::os
