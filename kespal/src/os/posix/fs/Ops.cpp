#include "kespal/fs/Ops.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <utility>

#include "fs/TempTemplate.h"
#include "kespal/fs/Access.h"
#include "kespal/fs/Info.h"
#include "os/posix/fs/At.h"
#include "os/posix/fs/Errors.h"

namespace kes::fs {

namespace {

bool changesOwner(const Access& access) {
  return access.owner() != Access::Unchanged || access.group() != Access::Unchanged;
}

}  // namespace

std::string Ops::cwd() {
  char buffer[PATH_MAX];
  if (::getcwd(buffer, sizeof buffer) == nullptr) {
    raiseAt(KES_HERE, OsError(errno == ERANGE ? ENAMETOOLONG : errno));
  }
  return buffer;
}

constinit const Site setCwdSite = KES_HERE_IN("setCWD");

void Ops::setCWD(const char* path) { PathErrors::check(setCwdSite, onPath(::chdir, path), path); }

bool Ops::exists(const char* path, bool follow) {
  struct stat status;
  const auto look = [&](const char* at) { return follow ? ::stat(at, &status) : ::lstat(at, &status); };
  const bool found = onPath(look, path) == 0;
  if (!found && errno != ENOENT) raiseAt(KES_HERE, FsError(path, errno));
  return found;
}

void Ops::readlink(const char* path, std::string& target) {
  char buffer[PATH_MAX];  // no target is long enough to fill it
  const auto read = [&](const char* link) { return ::readlink(link, buffer, sizeof buffer); };
  const ssize_t length = ReadlinkErrors::check(KES_HERE, onPath(read, path), path);
  target.assign(buffer, static_cast<std::size_t>(length));
}

void Ops::symlink(const char* linkPath, const char* target) {
  SymlinkErrors::check(KES_HERE, onPath(::symlink, target, linkPath), linkPath);
}

void Ops::removeFile(const char* path) { UnlinkErrors::check(KES_HERE, onPath(::unlink, path), path); }

void Ops::removeDir(const char* path) { PathErrors::check(KES_HERE, onPath(::rmdir, path), path); }

void at::removeFile(int directory, const char* name, const std::string& path) {
  UnlinkErrors::check(KES_HERE, ::unlinkat(directory, name, 0), path);
}

void at::removeDir(int directory, const char* name, const std::string& path) {
  PathErrors::check(KES_HERE, ::unlinkat(directory, name, AT_REMOVEDIR), path);
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
  MkdirErrors::check(KES_HERE, onPath([=](const char* name) { return ::mkdir(name, mode); }, path), path);
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
  PathErrors::check(KES_HERE, ::mkfifo(path.c_str(), access.mode()), path);
}

void Ops::setAccess(const char* path, const Access& access) {
  if (path == nullptr) raiseAt(KES_HERE, FsError(path, EFAULT));
  setAccessPriv(path, -1, access);
}

void Ops::setAccess(int fd, const Access& access) { setAccessPriv(nullptr, fd, access); }

void Ops::setAccessPriv(const char* path, int fd, const Access& access) {
  if (path == nullptr) return at::setAccessPriv(fd, access, {});
  PathErrors::check(KES_HERE, ::chmod(path, access.mode()), path);
  if (changesOwner(access)) setOwnership(path, fd, access);
}

void at::setAccessPriv(int fd, const Access& access, const std::string& path) {
  check(KES_HERE, ::fchmod(fd, access.mode()));
  if (changesOwner(access)) setOwnership(fd, access, path);
}

}  // namespace kes::fs
