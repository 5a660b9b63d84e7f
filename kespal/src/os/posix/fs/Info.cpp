#include "kespal/fs/Info.h"

#include <cerrno>

#include "kespal/error/FsError.h"

namespace kes::fs {

namespace {

/// Compilers take for granted that the system is never asked about a null path.
int status(const char* path, bool follow, struct stat& record) {
  if (path != nullptr) return follow ? ::stat(path, &record) : ::lstat(path, &record);
  errno = EFAULT;
  return -1;
}

}  // namespace

Info Info::get(const char* path, bool follow) {
  Info info;
  if (status(path, follow, info.status_) == 0) return info;
  const int code = errno;
  if (code == ENOENT) raiseAt(KES_HERE, NoSuchFileError(path, code));
  raiseAt(KES_HERE, FsError(path, code));
}

Info Info::get(const int& fd) {
  Info info;
  if (::fstat(fd, &info.status_) != 0) raiseAt(KES_HERE, OsError(errno));
  return info;
}

}  // namespace kes::fs
