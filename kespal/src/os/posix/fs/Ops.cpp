#include "kespal/fs/Ops.h"

#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "kespal/error/FsError.h"

namespace kes::fs {

namespace {

/// What a system call says to a null path; compilers take for granted that it is never asked.
int refuseNull() {
  errno = EFAULT;
  return -1;
}

}  // namespace

std::string Ops::cwd() {
  char buffer[PATH_MAX];
  if (::getcwd(buffer, sizeof buffer) == nullptr) {
    raiseAt(KES_HERE, OsError(errno == ERANGE ? ENAMETOOLONG : errno));
  }
  return buffer;
}

void Ops::setCWD(const char* path) {
  const int result = path != nullptr ? ::chdir(path) : refuseNull();
  if (result != 0) raiseAt(KES_HERE, FsError(path, errno));
}

bool Ops::exists(const char* path, bool follow) {
  struct stat status;
  const int result = path == nullptr ? refuseNull() : follow ? ::stat(path, &status) : ::lstat(path, &status);
  if (result != 0 && errno != ENOENT) raiseAt(KES_HERE, FsError(path, errno));
  return result == 0;
}

void Ops::readlink(const char* path, std::string& target) {
  char buffer[PATH_MAX];  // no target is long enough to fill it
  const ssize_t length = path != nullptr ? ::readlink(path, buffer, sizeof buffer) : refuseNull();
  if (length >= 0) {
    target.assign(buffer, static_cast<std::size_t>(length));
    return;
  }
  switch (const int code = errno) {
    case ENOENT:
    case ENOTDIR:
      raiseAt(KES_HERE, NoSuchFileError(path, code));
    case EINVAL:
      raiseAt(KES_HERE, NotASymlinkError(path, code));
    default:
      raiseAt(KES_HERE, FsError(path, code));
  }
}

}  // namespace kes::fs
