#include "kespal/fs/Dir.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "error/Report.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/Info.h"
#include "os/posix/fs/At.h"
#include "os/posix/fs/Errors.h"
#include "os/posix/fs/OpenAtOnce.h"
#include "sys/NoCancel.h"
#include "sys/Owner.h"

namespace kes::fs {

namespace {

bool isDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0));
}

[[gnu::always_inline]] inline void needOpen(const Site& site, const DIR* stream) {
  if (stream == nullptr) raiseAt(site, UsageError("No directory is open"));
}

[[gnu::always_inline]] inline void needEntry(const Site& site, const DIR* stream, const dirent* entry) {
  needOpen(site, stream);
  if (entry == nullptr) raiseAt(site, UsageError("No current entry"));
}

/// The next entry that is neither "." nor ".."; null at the end.
[[gnu::always_inline]] inline const dirent* readEntry(const Site& site, DIR* stream) {
  const dirent* entry = nullptr;
  do {
    errno = 0;  // only errno tells an error from the end
    entry = ::readdir(stream);
  } while (entry != nullptr && isDotOrDotDot(entry->d_name));
  if (entry == nullptr && errno != 0) raiseAt(site, OsError(errno));
  return entry;
}

}  // namespace

Dir::~Dir() {
  doReporting({"WARNING: directory not closed:\n"}, [this] { close(); });
}

void Dir::hold(DIR* stream, std::string&& path) noexcept {
  stream_ = stream;
  fd_ = ::dirfd(stream);
  path_ = std::move(path);
}

void Dir::open(const char* path) {
  if (path == nullptr) StatusErrors::raise(KES_HERE, EFAULT, path);
  std::string name = path;
  sys::DirStream opened(::opendir(path));
  if (!opened) StatusErrors::raise(KES_HERE, errno, path);
  close();
  hold(opened.release(), std::move(name));
}

void Dir::close() {
  if (stream_ == nullptr) return;
  const sys::NoCancel noCancel;  // as in File::close()
  init();
  fd_ = -1;
  check(KES_HERE, ::closedir(std::exchange(stream_, nullptr)));
}

bool Dir::nextEntry() {
  needOpen(KES_HERE, stream_);
  init();
  entry_ = readEntry(KES_HERE, stream_);
  return entry_ != nullptr;
}

const char* Dir::entryName() const {
  needEntry(KES_HERE, stream_, entry_);
  return entry_->d_name;
}

Dir::EntryType Dir::entryType() const {
  needEntry(KES_HERE, stream_, entry_);
  return at::typeOf(entry_->d_type);
}

std::string Dir::entryPath() const { return path_ + '/' + entry_->d_name; }

void Dir::entryInfo(Info& info, bool follow) const {
  needEntry(KES_HERE, stream_, entry_);
  struct stat status;
  if (::fstatat(fd_, entry_->d_name, &status, follow ? 0 : AT_SYMLINK_NOFOLLOW) != 0) {
    const int errnum = errno;
    StatusErrors::raise(KES_HERE, errnum, entryPath());
  }
  info = Info(status);
}

void Dir::entryDir(Dir& dir) const {
  needEntry(KES_HERE, stream_, entry_);
  std::string name = entryPath();
  sys::DirStream opened = at::tryOpen(fd_, entry_->d_name);
  if (!opened) StatusErrors::raise(KES_HERE, errno, name);
  dir.close();
  dir.hold(opened.release(), std::move(name));
}

void Dir::dirInfo(Info& info) const {
  needOpen(KES_HERE, stream_);
  info = Info::get(fd_);
}

bool Dir::isEmpty(const char* path) {
  Dir dir(path);
  return !dir.nextEntry();
}

sys::DirStream at::tryOpen(int directory, const char* name) {
  sys::Descriptor fd(openAtOnce(directory, name, O_RDONLY | O_NONBLOCK | O_DIRECTORY));
  if (!fd) return {};
  sys::DirStream stream(::fdopendir(fd.get()));
  const int errnum = errno;
  if (stream) fd.release();
  fd.reset();
  errno = errnum;
  return stream;
}

Site at::openSite() noexcept {
  Site site = KES_HERE;
  site.function = "open";
  return site;
}

const dirent* at::nextEntry(DIR* directory) { return readEntry(KES_HERE, directory); }

Dir::EntryType at::typeOf(unsigned char direntType) noexcept {
  switch (direntType) {
    case DT_DIR:
      return Dir::EntryType::Directory;
    case DT_REG:
      return Dir::EntryType::Regular;
    case DT_LNK:
      return Dir::EntryType::Link;
    case DT_UNKNOWN:
      return Dir::EntryType::Unknown;
    default:
      return Dir::EntryType::Other;
  }
}

}  // namespace kes::fs
