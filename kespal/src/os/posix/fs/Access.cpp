#include "kespal/fs/Access.h"

#include <sys/stat.h>
#include <unistd.h>

#include "os/posix/fs/At.h"
#include "os/posix/fs/Errors.h"

namespace kes::fs {

namespace {

constexpr mode_t setIdBits = S_ISUID | S_ISGID;

/// A file by name, links followed, or by descriptor where there is no name.
struct Target {
  const char* path;
  int fd;

  int stat(struct stat& status) const {
    return path != nullptr ? ::stat(path, &status) : ::fstat(fd, &status);
  }
  int chown(uid_t owner, gid_t group) const {
    return path != nullptr ? ::chown(path, owner, group) : ::fchown(fd, owner, group);
  }
  int chmod(mode_t mode) const { return path != nullptr ? ::chmod(path, mode) : ::fchmod(fd, mode); }
};

/// Changes hands, keeping those set-id bits that the file has and `asked` names. What the system drops
/// depends on what the file is: so it is asked.
int chownKeeping(const Target& file, const Access& access, mode_t asked) {
  struct stat before, after;
  if (file.stat(before) != 0 || file.chown(access.owner(), access.group()) != 0) return -1;
  if (file.stat(after) != 0) return -1;
  const mode_t dropped = before.st_mode & ~after.st_mode & asked;
  return dropped != 0 ? file.chmod((after.st_mode & 07777) | dropped) : 0;
}

/// -1 with errno where it fails.
int changeHands(const Target& file, const Access& access) {
  const mode_t asked = access.mode() & setIdBits;
  return asked != 0 ? chownKeeping(file, access, asked) : file.chown(access.owner(), access.group());
}

}  // namespace

Access Access::setUmask(const Access& mask) noexcept {
  return Access(static_cast<unsigned short>(::umask(mask.mode())));
}

void setOwnership(const char* path, int fd, const Access& access) {
  PathErrors::check(KES_HERE, changeHands({path, fd}, access), path);
}

void at::setOwnership(int fd, const Access& access, const std::string& path) {
  PathErrors::check(KES_HERE, changeHands({nullptr, fd}, access), path);
}

}  // namespace kes::fs
