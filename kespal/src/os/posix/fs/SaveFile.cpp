#include "kespal/fs/SaveFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "kespal/error/StaticError.h"
#include "kespal/fs/Access.h"
#include "kespal/fs/Info.h"
#include "kespal/fs/Path.h"
#include "os/FileCalls.h"
#include "os/posix/fs/Errors.h"
#include "os/posix/fs/OpenAtOnce.h"
#include "os/posix/fs/RandomName.h"
#include "sys/AtEnd.h"
#include "sys/NoCancel.h"
#include "sys/Owner.h"
#include "sys/Retry.h"

namespace kes::fs {

namespace {

constexpr mode_t ownerOnly = S_IRUSR | S_IWUSR;
/// Of names for a temporary file. Who finds so many of them taken is told so by a file system that is broken.
constexpr int mostTries = 100;

/// As of opening a file, but what may not be written to its place is an access error as well.
using SaveErrors = Errors<FsError, Raise<FileAccessError, EPERM, EACCES>, Raise<NoSuchFileError, ENOENT>>;

/// The path of what a link leads to; any other path as it is.
std::string behindLink(const char* path) {
  struct stat status;
  const bool isThere = ::lstat(path, &status) == 0;
  if (!isThere && errno != ENOENT) SaveErrors::raise(KES_HERE, errno, path);
  if (!isThere || !S_ISLNK(status.st_mode)) return path;
  const sys::MallocedText target(::realpath(path, nullptr));
  if (!target) SaveErrors::raise(KES_HERE, errno, path);
  return target.get();
}

}  // namespace

SaveFile::SaveFile(const char* path, const Access* access) : owner_(::getpid()) {
  if (path == nullptr) raiseAt(KES_HERE, FsError(path, EFAULT));
  path_ = path;
  sys::AtEnd givingUp([this] { cancel(); });
  lookUp(path);
  chooseRights(access);
  makeTemporary();
  givingUp.dismiss();
}

SaveFile::~SaveFile() { cancel(); }

void SaveFile::lookUp(const char* path) {
  const Path place(behindLink(path));
  name_ = place.basename();
  if (name_.empty() || name_ == "." || name_ == "..") SaveErrors::raise(KES_HERE, EISDIR, path_);
  Path directory = place;
  directory.assignDirname();
  if (directory.empty()) directory.assign(1, '/');  // what remains of "/name"
  const sys::NoCancel untilOwned;                   // as in openAtOnce()
  directory_ =
      SaveErrors::check(KES_HERE, ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), path_);
}

void SaveFile::chooseRights(const Access* access) {
  struct stat status;
  const bool isThere = ::fstatat(directory_, name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
  if (!isThere && errno != ENOENT) SaveErrors::raise(KES_HERE, errno, path_);
  if (isThere && S_ISDIR(status.st_mode)) SaveErrors::raise(KES_HERE, EISDIR, path_);
  if (isThere && !S_ISREG(status.st_mode)) SaveErrors::raise(KES_HERE, EINVAL, path_);
  rights_ = isThere ? Info(status).access() : Access(ownerOnly);
  if (access != nullptr) rights_ = *access;
}

void SaveFile::makeTemporary() {
  std::string name;
  for (int tries = 0; fd_ == -1; ++tries) {
    if (tries != 0 && (errno != EEXIST || tries == mostTries)) SaveErrors::raise(KES_HERE, errno, path_);
    name = randomName(name_, NAME_MAX, path_);
    fd_ = openAtOnce(directory_, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, ownerOnly);
  }
  temporary_ = std::move(name);
  const bool changesHands = rights_.owner() != Access::Unchanged || rights_.group() != Access::Unchanged;
  if (changesHands) SaveErrors::check(KES_HERE, ::fchown(fd_, rights_.owner(), rights_.group()), path_);
}

bool SaveFile::isOwners() const noexcept { return owner_ == ::getpid(); }

void SaveFile::write(const void* data, std::size_t size) {
  if (fd_ == -1) raiseAt(KES_HERE, UsageError("nothing is being saved"));
  const auto* bytes = static_cast<const char*>(data);
  while (size != 0) {
    // Not every system takes more at once.
    const std::size_t most = std::min<std::size_t>(size, INT_MAX);
    const ssize_t written = sys::retry([&] { return ::write(fd_, bytes, most); });
    SaveErrors::check(KES_HERE, written, path_);
    if (written == 0) SaveErrors::raise(KES_HERE, EIO, path_);  // it would be so for ever
    bytes += written;
    size -= static_cast<std::size_t>(written);
  }
}

void SaveFile::commit() {
  if (fd_ == -1 || !isOwners()) raiseAt(KES_HERE, UsageError("nothing is being saved"));
  const sys::AtEnd closing([this] { cancel(); });
  // Not before: a change of hands takes set-id bits away, and so does a write.
  SaveErrors::check(KES_HERE, ::fchmod(fd_, rights_.mode()), path_);
  SaveErrors::check(KES_HERE, sys::retry([this] { return os::syncToDevice(fd_); }), path_);
  {
    const sys::NoCancel whileNobodyOwnsIt;
    // Some file systems tell only now that there was no room.
    SaveErrors::check(KES_HERE, ::close(std::exchange(fd_, -1)), path_);
  }
  SaveErrors::check(KES_HERE, ::renameat(directory_, temporary_.c_str(), directory_, name_.c_str()), path_);
  temporary_.clear();
  const int synced = sys::retry([this] { return os::syncToDevice(directory_); });
  // A file system that cannot bring a directory to the device says that it is of the wrong kind.
  if (synced == -1 && errno != EINVAL && errno != ENOTSUP) SaveErrors::raise(KES_HERE, errno, path_);
}

void SaveFile::cancel() noexcept {
  const sys::Descriptor file(std::exchange(fd_, -1)), directory(std::exchange(directory_, -1));
  if (!temporary_.empty() && isOwners()) ::unlinkat(directory.get(), temporary_.c_str(), 0);
  temporary_.clear();
}

}  // namespace kes::fs
