#include "os/FileCalls.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace kes::os {

namespace {

// What went wrong on the way. A fsync() afterwards may not hear of it again.
bool hasFailed(int errnum) noexcept {
  return errnum == EIO || errnum == EINTR || errnum == ENOSPC || errnum == EDQUOT;
}

}  // namespace

// fsync() leaves the bytes in the cache of the device here. Not every file system can do better, and they
// refuse in several ways.
int syncToDevice(int fd) {
  if (::fcntl(fd, F_FULLFSYNC) == 0) return 0;
  return hasFailed(errno) ? -1 : ::fsync(fd);
}

FileTimes timesOf(const struct stat& status) noexcept { return {{status.st_atimespec, status.st_mtimespec}}; }

}  // namespace kes::os
