#include "os/FileCalls.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "sys/Owner.h"

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

// There is no pipe2() here: until the second call another thread may start a program, which has the ends
// then.
int makePipe(int (&ends)[2]) noexcept {
  if (::pipe(ends) != 0) return -1;
  sys::Descriptor readEnd(ends[0]), writeEnd(ends[1]);
  for (const int end : ends) {
    if (::fcntl(end, F_SETFD, FD_CLOEXEC) == -1) return -1;
  }
  readEnd.release();
  writeEnd.release();
  return 0;
}

}  // namespace kes::os
