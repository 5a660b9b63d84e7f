#include "kespal/fs/Ops.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <utility>

#include "fs/TempTemplate.h"
#include "kespal/error/FsError.h"
#include "kespal/fs/Access.h"
#include "kespal/fs/Info.h"
#include "os/posix/fs/NullPath.h"

namespace kes::fs {

namespace {

bool changesOwner(const Access& access) {
  return access.owner() != Access::Unchanged || access.group() != Access::Unchanged;
}

[[noreturn, gnu::always_inline]] inline void raiseUnlink(const Site& site, const char* path, int errnum) {
  switch (errnum) {
    case EACCES:
    case EPERM:
      raiseAt(site, FileAccessError(path, errnum));
    default:
      raiseAt(site, FsError(path, errnum));
  }
}

[[noreturn, gnu::always_inline]] inline void raiseReadlink(const Site& site, const char* path, int errnum) {
  switch (errnum) {
    case ENOENT:
    case ENOTDIR:
      raiseAt(site, NoSuchFileError(path, errnum));
    case EINVAL:
      raiseAt(site, NotASymlinkError(path, errnum));
    default:
      raiseAt(site, FsError(path, errnum));
  }
}

[[noreturn, gnu::always_inline]] inline void raiseSymlink(const Site& site, const char* path, int errnum) {
  switch (errnum) {
    case EEXIST:
      raiseAt(site, FileExistsError(path, errnum));
    default:
      raiseAt(site, FsError(path, errnum));
  }
}

[[noreturn, gnu::always_inline]] inline void raiseMkdir(const Site& site, const char* path, int errnum) {
  switch (errnum) {
    case EEXIST:
      raiseAt(site, FileExistsError(path, errnum));
    case ENOENT:
      raiseAt(site, NoSuchFileError(path, errnum));
    default:
      raiseAt(site, FsError(path, errnum));
  }
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
  if (length < 0) raiseReadlink(KES_HERE, path, errno);
  target.assign(buffer, static_cast<std::size_t>(length));
}

void Ops::symlink(const char* linkPath, const char* target) {
  const bool named = linkPath != nullptr && target != nullptr;
  const int result = named ? ::symlink(target, linkPath) : refuseNull();
  if (result != 0) raiseSymlink(KES_HERE, linkPath, errno);
}

void Ops::removeFile(const char* path) {
  const int result = path != nullptr ? ::unlink(path) : refuseNull();
  if (result != 0) raiseUnlink(KES_HERE, path, errno);
}

void Ops::removeDir(const char* path) {
  const int result = path != nullptr ? ::rmdir(path) : refuseNull();
  if (result != 0) raiseAt(KES_HERE, FsError(path, errno));
}

void Ops::remove(const char* path) {
  const bool isDir = path != nullptr && Info::get(path, /*follow=*/false).isDir();
  isDir ? removeDir(path) : removeFile(path);
}

bool Ops::tryRemove(const std::string& path) {
  try {
    remove(path.c_str());
    return true;
  } catch (const FsError& error) {
    // Whether the look or the removal came too late: both say ENOENT, each in a class of its own.
    if (error.osError().errnum() != ENOENT) throw;
    return false;
  }
}

void Ops::mkdir(const char* path, const Access* access) {
  const mode_t mode = access != nullptr ? mode_t{access->mode()} : mode_t{S_IRWXU};
  const int result = path != nullptr ? ::mkdir(path, mode) : refuseNull();
  if (result != 0) raiseMkdir(KES_HERE, path, errno);
  if (access != nullptr && changesOwner(*access)) setOwnership(path, -1, *access);
}

void Ops::tempdir(std::string& name) {
  const std::string pattern = tempTemplate(name);
  // A failing call leaves the characters it tried last in its argument: the error shall name the template.
  std::string created = pattern;
  if (::mkdtemp(created.data()) == nullptr) raiseAt(KES_HERE, FsError(pattern, errno));
  name = std::move(created);
}

void Ops::makeFifo(const std::string& path, const Access& access) {
  if (::mkfifo(path.c_str(), access.mode()) != 0) raiseAt(KES_HERE, FsError(path, errno));
}

void Ops::setAccess(const char* path, const Access& access) {
  if (path == nullptr) raiseAt(KES_HERE, FsError(path, EFAULT));
  setAccessPriv(path, -1, access);
}

void Ops::setAccess(int fd, const Access& access) { setAccessPriv(nullptr, fd, access); }

void Ops::setAccessPriv(const char* path, int fd, const Access& access) {
  if (path != nullptr && ::chmod(path, access.mode()) != 0) raiseAt(KES_HERE, FsError(path, errno));
  if (path == nullptr && ::fchmod(fd, access.mode()) != 0) raiseAt(KES_HERE, OsError(errno));
  if (changesOwner(access)) setOwnership(path, fd, access);
}

}  // namespace kes::fs
