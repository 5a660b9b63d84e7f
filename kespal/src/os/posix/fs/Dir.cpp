#include "kespal/fs/Dir.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "error/Report.h"
#include "kespal/error/FsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/Info.h"
#include "sys/NoCancel.h"

namespace kes::fs {

namespace {

bool isDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0));
}

[[noreturn, gnu::always_inline]] inline void raiseFor(const Site& site, const char* path, int code) {
  if (code == ENOENT) raiseAt(site, NoSuchFileError(path, code));
  raiseAt(site, FsError(path, code));
}

[[gnu::always_inline]] inline void needOpen(const Site& site, const DIR* stream) {
  if (stream == nullptr) raiseAt(site, UsageError("No directory is open"));
}

[[gnu::always_inline]] inline void needEntry(const Site& site, const DIR* stream, const dirent* entry) {
  needOpen(site, stream);
  if (entry == nullptr) raiseAt(site, UsageError("No current entry"));
}

/// As opendir() does it, relative to an open directory. Null with errno.
DIR* openDirAt(int directory, const char* name) {
  const int fd = ::openat(directory, name, O_RDONLY | O_NONBLOCK | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  DIR* stream = ::fdopendir(fd);
  if (stream == nullptr) {
    const int code = errno;
    ::close(fd);
    errno = code;
  }
  return stream;
}

}  // namespace

Dir::~Dir() {
  doReporting({"WARNING: directory not closed:\n"}, [this] { close(); });
}

Dir::Dir(DIR* stream) noexcept : stream_(stream), fd_(stream != nullptr ? ::dirfd(stream) : -1) { init(); }

void Dir::take(Dir& other) {
  close();
  stream_ = std::exchange(other.stream_, nullptr);
  fd_ = std::exchange(other.fd_, -1);
}

void Dir::open(const char* path) {
  if (path == nullptr) raiseFor(KES_HERE, path, EFAULT);
  Dir opened(::opendir(path));
  if (!opened.isOpen()) raiseFor(KES_HERE, path, errno);
  take(opened);
}

void Dir::close() {
  if (stream_ == nullptr) return;
  init();
  fd_ = -1;
  if (::closedir(std::exchange(stream_, nullptr)) != 0) raiseAt(KES_HERE, OsError(errno));
}

bool Dir::nextEntry() {
  needOpen(KES_HERE, stream_);
  do {
    errno = 0;  // only errno tells an error from the end
    entry_ = ::readdir(stream_);
  } while (entry_ != nullptr && isDotOrDotDot(entry_->d_name));
  if (entry_ == nullptr && errno != 0) raiseAt(KES_HERE, OsError(errno));
  return entry_ != nullptr;
}

const char* Dir::entryName() const {
  needEntry(KES_HERE, stream_, entry_);
  return entry_->d_name;
}

Dir::EntryType Dir::entryType() const {
  needEntry(KES_HERE, stream_, entry_);
  switch (entry_->d_type) {
    case DT_DIR:
      return EntryType::Directory;
    case DT_REG:
      return EntryType::Regular;
    case DT_LNK:
      return EntryType::Link;
    case DT_UNKNOWN:
      return EntryType::Unknown;
    default:
      return EntryType::Other;
  }
}

void Dir::entryInfo(Info& info, bool follow) const {
  needEntry(KES_HERE, stream_, entry_);
  struct stat status;
  if (::fstatat(fd_, entry_->d_name, &status, follow ? 0 : AT_SYMLINK_NOFOLLOW) != 0) {
    raiseFor(KES_HERE, entry_->d_name, errno);
  }
  info = Info(status);
}

void Dir::entryDir(Dir& dir) const {
  needEntry(KES_HERE, stream_, entry_);
  Dir opened(openDirAt(fd_, entry_->d_name));
  if (!opened.isOpen()) raiseFor(KES_HERE, entry_->d_name, errno);
  dir.take(opened);
}

void Dir::dirInfo(Info& info) const {
  needOpen(KES_HERE, stream_);
  info = Info::get(fd_);
}

bool Dir::isEmpty(const char* path) {
  Dir dir(path);
  return !dir.nextEntry();
}

}  // namespace kes::fs
