#include "kespal/fs/TreeCopier.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "os/FileCalls.h"
#include "os/posix/fs/DirChain.h"
#include "os/posix/fs/Errors.h"
#include "os/posix/fs/OpenAtOnce.h"
#include "os/posix/fs/RandomName.h"
#include "sys/AtEnd.h"
#include "sys/NoCancel.h"
#include "sys/Owner.h"
#include "sys/Retry.h"

namespace kes::fs {

namespace {

constexpr std::size_t bufferSize = std::size_t{128} * 1024;

using CopyErrors = Errors<FsError, Raise<FileAccessError, EACCES, EPERM>, Raise<NoSuchFileError, ENOENT>,
                          Raise<FileExistsError, EEXIST>>;

/// An entry by its directory and its name there; the path is for errors.
struct Place {
  int directory;
  const char* name;
  std::string path;

  Place(const DirChain& chain, const char* entry)
      : directory(chain.fd()), name(entry), path(chain.pathOf(entry)) {
    if (chain.depth() == 0) name = path.c_str();
  }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;

  /// Whether there is such an entry, and if so, its status.
  bool isThere(struct stat& status) const {
    if (::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0) return true;
    if (errno != ENOENT) CopyErrors::raise(KES_HERE, errno, path);
    return false;
  }

  struct stat status() const {
    struct stat result;
    CopyErrors::check(KES_HERE, ::fstatat(directory, name, &result, AT_SYMLINK_NOFOLLOW), path);
    return result;
  }
};

/// Whether the caller may not give a file to somebody else. Who is not known where the process lives is an
/// invalid owner there.
bool isRefusal(int errnum) noexcept { return errnum == EPERM || errnum == EINVAL; }

/// The permission bits of the copy, which `chown` has made its owner's or not.
template <typename Chown>
mode_t bitsAfterChown(const struct stat& source, const std::string& path, Chown chown) {
  constexpr uid_t unchangedOwner = static_cast<uid_t>(-1);
  const mode_t bits = source.st_mode & 07777;
  if (chown(source.st_uid, source.st_gid) == 0) return bits;
  if (!isRefusal(errno)) CopyErrors::raise(KES_HERE, errno, path);
  if (chown(unchangedOwner, source.st_gid) != 0 && !isRefusal(errno))
    CopyErrors::raise(KES_HERE, errno, path);
  return bits & 01777;
}

void giveRightsAndTimes(int fd, const struct stat& source, const std::string& path) {
  const mode_t bits =
      bitsAfterChown(source, path, [fd](uid_t owner, gid_t group) { return ::fchown(fd, owner, group); });
  CopyErrors::check(KES_HERE, ::fchmod(fd, bits), path);
  CopyErrors::check(KES_HERE, ::futimens(fd, os::timesOf(source).times), path);
}

/// Copies the bytes of one file into another one, which is empty.
class Content {
 public:
  Content(int from, int to, const Place& source, const Place& target, char* buffer)
      : from_(from), to_(to), source_(source), target_(target), buffer_(buffer) {}

  /// `more` is told the size of each piece, and says whether to go on; false when it did not.
  template <typename More>
  bool copy(off_t size, More more) {
    if (size == 0) return copyRange(0, longest, more);  // what the system makes up has no size
    for (off_t start = 0; start < size;) {
      const off_t data = nextData(start, size), hole = nextHole(data, size);
      if (!copyRange(data, hole, more)) return false;
      start = hole;
    }
    CopyErrors::check(KES_HERE, ::ftruncate(to_, size), target_.path);  // it may end in a hole
    return true;
  }

 private:
  static constexpr off_t longest = sizeof(off_t) == 8 ? static_cast<off_t>(LLONG_MAX) : LONG_MAX;

  /// A file system that knows of no holes says so, and then all of it is data.
  off_t nextData(off_t start, off_t size) const {
    const off_t data = ::lseek(from_, start, SEEK_DATA);
    if (data == -1) return errno == ENXIO ? size : start;
    return std::clamp(data, start, size);
  }

  off_t nextHole(off_t data, off_t size) const {
    if (data == size) return size;
    const off_t hole = ::lseek(from_, data, SEEK_HOLE);
    return hole > data ? std::min(hole, size) : size;
  }

  template <typename More>
  bool copyRange(off_t at, off_t end, More& more) {
    while (at < end) {
      const auto wanted =
          std::min(static_cast<unsigned long long>(end - at), static_cast<unsigned long long>(bufferSize));
      const auto read = static_cast<std::size_t>(CopyErrors::check(
          KES_HERE, sys::retry([&] { return ::pread(from_, buffer_, static_cast<std::size_t>(wanted), at); }),
          source_.path));
      if (read == 0) return true;  // it became shorter meanwhile
      write(read, at);
      at += static_cast<off_t>(read);
      if (!more(read)) return false;
    }
    return true;
  }

  void write(std::size_t size, off_t at) {
    for (std::size_t done = 0; done < size;) {
      const auto written = static_cast<std::size_t>(CopyErrors::check(
          KES_HERE, sys::retry([&] {
            return ::pwrite(to_, buffer_ + done, size - done, at + static_cast<off_t>(done));
          }),
          target_.path));
      if (written == 0) CopyErrors::raise(KES_HERE, EIO, target_.path);  // it would be so for ever
      done += written;
    }
  }

  int from_, to_;
  const Place& source_;
  const Place& target_;
  char* buffer_;
};

/// The name under which a copy is made: the one that it shall have, or where something has that, a temporary
/// one, so that the former stays until the copy is whole.
class NewName {
 public:
  NewName(const Place& target, const struct stat& source, bool overwrite) : name_(target.name) {
    struct stat status;
    if (!overwrite || !target.isThere(status)) return;
    if (identityOf(status) == identityOf(source)) CopyErrors::raise(KES_HERE, EINVAL, target.path);
    if (S_ISDIR(status.st_mode)) CopyErrors::raise(KES_HERE, EISDIR, target.path);
    const std::size_t slash = name_.rfind('/');  // only a top has any
    const std::size_t start = slash == std::string::npos ? 0 : slash + 1;
    name_.replace(start, std::string::npos, randomName(name_.substr(start), NAME_MAX, target.path));
    isTemporary_ = true;
  }

  const char* get() const noexcept { return name_.c_str(); }

  /// Gives the copy its name.
  void take(const Place& target) const {
    if (!isTemporary_) return;
    const int result = ::renameat(target.directory, get(), target.directory, target.name);
    CopyErrors::check(KES_HERE, result, target.path);
    // Two names of one file: the system leaves both.
    ::unlinkat(target.directory, get(), 0);
  }

 private:
  std::string name_;
  bool isTemporary_ = false;
};

/// One run of a copier.
class TreeCopy {
 public:
  using Progressed = std::function<bool(const TreeCopier::Progress&)>;
  using Failed = std::function<bool(const Exception&)>;

  TreeCopy(const char* from, const char* to, bool overwrite, const Progressed& progressed,
           const Failed& failed)
      : source_(from), target_(to), overwrite_(overwrite), progressed_(progressed), failed_(failed) {}

  bool run() {
    copyEntry(source_.path().c_str(), target_.path().c_str());
    while (!cancelled_ && !levels_.empty()) {
      if (source_.depth() != levels_.size()) CopyErrors::raise(KES_HERE, ESTALE, path_);
      if (const char* name = levels_.back().listing.nextName()) {
        copyEntry(name, name);
      } else {
        leave();
      }
    }
    return !cancelled_;
  }

 private:
  /// A directory that is being copied.
  struct Level {
    DirListing listing;
    struct stat source;
  };

  template <typename Action>
  void handlingErrors(Action action) {
    try {
      action();
    } catch (const Exception& error) {
      if (!failed_ || !failed_(error)) throw;
    }
  }

  void copyEntry(const char* from, const char* to) {
    handlingErrors([&] { copyByType(Place(source_, from), Place(target_, to)); });
  }

  void copyByType(const Place& source, const Place& target) {
    const struct stat status = source.status();
    path_ = source.path;
    switch (status.st_mode & S_IFMT) {
      case S_IFDIR:
        return enter(source, target);
      case S_IFREG:
        return copyFile(source, target);
      case S_IFLNK:
        return copyLink(source, target, status);
      default:
        CopyErrors::raise(KES_HERE, ENOTSUP, source.path);
    }
  }

  // --- directories

  void enter(const Place& source, const Place& target) {
    if (!source_.enter(source.name)) CopyErrors::raise(KES_HERE, errno, source.path);
    sys::AtEnd leavingSource([this] { abandon(source_); });
    if (levels_.empty() ? isTarget(target) : source_.identity() == targetTop_) {
      CopyErrors::raise(KES_HERE, EINVAL, target.path);
    }
    DirListing listing(source_);
    struct stat status;
    CopyErrors::check(KES_HERE, ::fstat(source_.fd(), &status), source.path);
    levels_.reserve(levels_.size() + 1);
    makeDirectory(target);
    if (!target_.enter(target.name)) CopyErrors::raise(KES_HERE, errno, target.path);
    if (levels_.empty()) targetTop_ = target_.identity();
    levels_.push_back({std::move(listing), status});
    leavingSource.dismiss();
  }

  bool isTarget(const Place& target) const {
    struct stat status;
    return target.isThere(status) && identityOf(status) == source_.identity();
  }

  void makeDirectory(const Place& target) const {
    if (::mkdirat(target.directory, target.name, S_IRWXU) == 0) return;
    if (errno != EEXIST || !overwrite_) CopyErrors::raise(KES_HERE, errno, target.path);
  }

  /// Another error is on its way. If the chain is lost, its next use says so.
  static void abandon(DirChain& chain) noexcept {
    const sys::NoCancel untilDone;
    try {
      chain.leave();
    } catch (const Exception&) {  // NOLINT(bugprone-empty-catch)
    }
  }

  void leave() {
    const struct stat source = levels_.back().source;
    path_ = source_.path();
    handlingErrors([&] { giveRightsAndTimes(target_.fd(), source, target_.path()); });
    levels_.pop_back();
    target_.leave();
    source_.leave();
    count();
  }

  // --- files and links

  void copyFile(const Place& source, const Place& target) {
    const sys::Descriptor from(openAtOnce(source.directory, source.name, O_RDONLY | O_NONBLOCK | O_NOFOLLOW));
    if (!from) CopyErrors::raise(KES_HERE, errno, source.path);
    struct stat status;
    CopyErrors::check(KES_HERE, ::fstat(from.get(), &status), source.path);
    if (!S_ISREG(status.st_mode)) CopyErrors::raise(KES_HERE, ESTALE, source.path);  // another one by now
    const NewName name(target, status, overwrite_);
    if (status.st_nlink > 1 && linked(name, target, status)) return count();
    if (!copied(from.get(), status, name, source, target)) return;
    if (status.st_nlink > 1) firstNames_.emplace(identityOf(status), pathFromTop(target));
    count();
  }

  /// False when it was cancelled.
  bool copied(int from, const struct stat& status, const NewName& name, const Place& source,
              const Place& target) {
    if (!buffer_) buffer_.reset(new char[bufferSize]);
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW;
    sys::Descriptor to(openAtOnce(target.directory, name.get(), flags, S_IRUSR | S_IWUSR));
    if (!to) CopyErrors::raise(KES_HERE, errno, target.path);
    sys::AtEnd takingBack([&] { ::unlinkat(target.directory, name.get(), 0); });
    const auto more = [this](std::size_t size) {
      bytes_ += size;
      return tell();
    };
    if (!Content(from, to.get(), source, target, buffer_.get()).copy(status.st_size, more)) return false;
    giveRightsAndTimes(to.get(), status, target.path);
    const sys::NoCancel whileNobodyOwnsIt;
    CopyErrors::check(KES_HERE, ::close(to.release()), target.path);
    name.take(target);
    takingBack.dismiss();
    return true;
  }

  void copyLink(const Place& source, const Place& target, const struct stat& status) {
    char content[PATH_MAX];
    const ssize_t length = CopyErrors::check(
        KES_HERE, ::readlinkat(source.directory, source.name, content, sizeof content - 1), source.path);
    content[length] = '\0';
    const NewName name(target, status, overwrite_);
    CopyErrors::check(KES_HERE, ::symlinkat(content, target.directory, name.get()), target.path);
    sys::AtEnd takingBack([&] { ::unlinkat(target.directory, name.get(), 0); });
    bitsAfterChown(status, target.path, [&](uid_t owner, gid_t group) {
      return ::fchownat(target.directory, name.get(), owner, group, AT_SYMLINK_NOFOLLOW);
    });
    const os::FileTimes when = os::timesOf(status);
    CopyErrors::check(KES_HERE, ::utimensat(target.directory, name.get(), when.times, AT_SYMLINK_NOFOLLOW),
                      target.path);
    name.take(target);
    takingBack.dismiss();
    count();
  }

  /// Gives the copy of a file that has several names one more of them.
  bool linked(const NewName& name, const Place& target, const struct stat& status) {
    const auto first = firstNames_.find(identityOf(status));
    if (first == firstNames_.end() || first->second.empty()) return false;
    const int made =
        ::linkat(target_.topFd(), first->second.c_str(), target.directory, name.get(), /*flags=*/0);
    if (made == 0) {
      sys::AtEnd takingBack([&] { ::unlinkat(target.directory, name.get(), 0); });
      name.take(target);
      takingBack.dismiss();
    } else if (errno != EMLINK && errno != ENAMETOOLONG && errno != EPERM && errno != ENOTSUP) {
      CopyErrors::raise(KES_HERE, errno, target.path);
    }
    return made == 0;  // where the file system knows no more names, or none so deep, it is another copy
  }

  std::string pathFromTop(const Place& target) const {
    return target_.depth() == 0 ? std::string() : target.path.substr(target_.topLength());
  }

  // --- telling

  void count() {
    ++entries_;
    tell();
  }

  bool tell() {
    if (progressed_ && !progressed_({path_, entries_, bytes_})) cancelled_ = true;
    return !cancelled_;
  }

  DirChain source_, target_;
  bool overwrite_;
  const Progressed& progressed_;
  const Failed& failed_;
  std::vector<Level> levels_;
  Identity targetTop_;
  std::map<Identity, std::string> firstNames_;  // of files with several, below the target's top
  std::unique_ptr<char[]> buffer_;
  std::string path_;
  std::uint64_t entries_ = 0;
  std::uint64_t bytes_ = 0;
  bool cancelled_ = false;
};

}  // namespace

bool TreeCopier::copy(const char* from, const char* to) {
  for (const char* path : {from, to}) {
    if (path == nullptr) raiseAt(KES_HERE, FsError(path, EFAULT));
  }
  return TreeCopy(from, to, flags_.test(Flags::OVERWRITE), progressed_, failed_).run();
}

}  // namespace kes::fs
