#include "kespal/fs/Info.h"

#include <cerrno>

#include "kespal/error/FsError.h"
#include "os/posix/fs/NullPath.h"

namespace kes::fs {

Info Info::get(const char* path, bool follow) {
  Info info;
  struct stat& status = info.status_;
  const int result = path == nullptr ? refuseNull() : follow ? ::stat(path, &status) : ::lstat(path, &status);
  if (result == 0) return info;
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
