#include "kespal/fs/Info.h"

#include <fcntl.h>

#include "os/posix/fs/At.h"
#include "os/posix/fs/Errors.h"

namespace kes::fs {

Info Info::get(const char* path, bool follow) {
  Info info;
  struct stat* const status = &info.status_;
  const auto look = [=](const char* at) { return follow ? ::stat(at, status) : ::lstat(at, status); };
  StatusErrors::check(KES_HERE, onPath(look, path), path);
  return info;
}

Info Info::get(const int& fd) {
  Info info;
  check(KES_HERE, ::fstat(fd, &info.status_));
  return info;
}

Info at::get(int directory, const char* name, const std::string& path, bool follow) {
  struct stat status;
  const int flags = follow ? 0 : AT_SYMLINK_NOFOLLOW;
  StatusErrors::check(KES_HERE, ::fstatat(directory, name, &status, flags), path);
  return Info(status);
}

}  // namespace kes::fs
