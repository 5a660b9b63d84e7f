#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "kespal/fs/Ops.h"
#include "kespal/fs/Path.h"
#include "os/posix/fs/At.h"
#include "os/posix/fs/Errors.h"
#include "os/posix/fs/OpenAtOnce.h"

namespace kes::fs {

namespace {

/// So many directories a walk keeps open. In a deeper tree it opens the upper ones again on its way back.
constexpr std::size_t mostOpen = 8;

/// So many links to directories it follows on one path where the path is too long for the system to count.
constexpr int mostLinks = 40;

/// Opens a directory by a path that may be longer than the system takes: then in several steps. None, with
/// errno, where that fails.
sys::DirStream openByPath(const std::string& path) {
  sys::Descriptor above;
  const auto from = [&above] { return above ? above.get() : AT_FDCWD; };
  std::size_t start = 0;
  while (path.size() - start >= PATH_MAX) {
    const std::size_t slash = path.rfind('/', start + PATH_MAX - 1);
    const std::string step = path.substr(start, slash - start);
    const int fd = openAtOnce(from(), step.c_str(), O_RDONLY | O_NONBLOCK | O_DIRECTORY);
    if (fd == -1) return {};
    above.reset(fd);
    start = slash + 1;
  }
  return at::tryOpen(from(), path.c_str() + start);
}

/// A directory between the top of the tree and the place of the walk.
class Level {
 public:
  Level(sys::DirStream dir, std::size_t pathLength) : dir_(std::move(dir)), pathLength_(pathLength) {
    readEntries();
  }

  /// How much of the walk's path leads here.
  std::size_t pathLength() const { return pathLength_; }

  /// The next entry, a character for its type and then its name; null behind the last one.
  const char* nextEntry() {
    if (next_ == entries_.size()) return nullptr;
    const char* const entry = entries_.data() + next_;
    next_ += std::strlen(entry + 1) + 2;
    return entry;
  }

  bool isOpen() const { return static_cast<bool>(dir_); }
  int fd() const { return ::dirfd(dir_.get()); }

  /// Stays open, where nobody could tell it from another one afterwards.
  bool close() {
    if (!identify(dir_, identity_)) return false;
    dir_.reset();
    return true;
  }

  /// Takes a stream in place of the one that was closed. False, with errno, if that is of another directory.
  bool reopen(sys::DirStream& dir) {
    Identity found;
    if (!identify(dir, found)) return false;
    errno = ESTALE;
    if (found != identity_) return false;
    dir_ = std::move(dir);
    return true;
  }

 private:
  using Identity = std::pair<dev_t, ino_t>;

  /// False, with errno, where the system cannot say.
  static bool identify(const sys::DirStream& dir, Identity& identity) {
    struct stat status;
    if (::fstat(::dirfd(dir.get()), &status) != 0) return false;
    identity = {status.st_dev, status.st_ino};
    return true;
  }

  /// Reads to the end before the first entry is removed: what a stream shows of removals is the system's
  /// secret.
  void readEntries() {
    while (const dirent* entry = at::nextEntry(dir_.get())) {
      entries_ += static_cast<char>(at::typeOf(entry->d_type));
      entries_.append(entry->d_name).push_back('\0');
    }
  }

  sys::DirStream dir_;
  std::size_t pathLength_;
  std::string entries_;
  std::size_t next_ = 0;
  Identity identity_;  // of the closed directory
};

/// One walk through a tree. However deep the tree is, the walk needs little stack and few descriptors, and it
/// goes from directory to directory by descriptors, since a path may be longer than the system takes. The
/// type that comes with a name saves the look at the entry. Where it does not say enough, as for links, or
/// where an entry does not go that way, the entry is looked at, so that errors are those of a plain walk.
class TreeRemoval {
 public:
  explicit TreeRemoval(const char* path) : path_(path) {}

  void run() {
    enter(at::tryOpen(AT_FDCWD, path_.c_str()));
    while (!levels_.empty()) {
      if (const char* entry = levels_.back().nextEntry()) {
        removeEntry(static_cast<Dir::EntryType>(*entry), entry + 1);
      } else {
        leave();
      }
    }
  }

 private:
  /// What no system call has refused is the operation's own error.
  [[noreturn, gnu::always_inline]] static inline void fail(Site site, int errnum, const std::string& path) {
    site.function = "removeTree";
    PathErrors::raise(site, errnum, path);
  }

  /// For the stream of a directory that could not be opened, with errno.
  [[gnu::always_inline]] static inline void needOpen(const sys::DirStream& dir, const std::string& path) {
    if (!dir) StatusErrors::raise(at::openSite(), errno, path);
  }

  /// Goes on in the directory of the walk's path. Without a stream, errno says why.
  void enter(sys::DirStream dir) {
    needOpen(dir, path_);
    levels_.emplace_back(std::move(dir), path_.size());
    if (levels_.size() - firstOpen_ > mostOpen) closeFarthest();
  }

  /// Removes the directory that was emptied and goes on in the one above.
  void leave() {
    climb();
    if (levels_.empty()) return at::removeDir(AT_FDCWD, path_.c_str(), path_);
    const std::size_t length = levels_.back().pathLength();
    at::removeDir(fd(), path_.c_str() + length + 1, path_);
    path_.resize(length);
  }

  /// Takes the last level away. The one above is often the system's "..", but not behind a link.
  void climb() {
    const Level left = std::move(levels_.back());
    levels_.pop_back();
    firstOpen_ = std::min(firstOpen_, levels_.size());
    if (levels_.empty() || levels_.back().isOpen() || !left.isOpen()) return;
    sys::DirStream above = at::tryOpen(left.fd(), "..");
    if (above && levels_.back().reopen(above)) firstOpen_ = levels_.size() - 1;
  }

  void removeEntry(Dir::EntryType type, const char* name) {
    const bool isPlain = type == Dir::EntryType::Regular || type == Dir::EntryType::Other;
    if (isPlain && ::unlinkat(fd(), name, 0) == 0) return;
    path_.append(1, '/').append(name);
    if (sys::DirStream dir = openIfDirectory(type, name)) return enter(std::move(dir));
    at::removeFile(fd(), name, path_);
    path_.resize(levels_.back().pathLength());
  }

  sys::DirStream openIfDirectory(Dir::EntryType type, const char* name) {
    if (type == Dir::EntryType::Directory) {
      if (sys::DirStream dir = openEntry(name)) return dir;
    }
    if (!look(name).isDir()) return {};
    sys::DirStream dir = openEntry(name);
    needOpen(dir, path_);
    return dir;
  }

  /// Looks at the entry of the walk's path, links followed. The system refuses a path with too many links.
  Info look(const char* name) {
    if (path_.size() < PATH_MAX) return Info::get(path_.c_str(), /*follow=*/true);
    const Info info = at::get(fd(), name, path_, /*follow=*/true);
    const bool leadsOn = info.isDir() && at::get(fd(), name, path_, /*follow=*/false).isLink();
    if (leadsOn && ++links_ > mostLinks) fail(KES_HERE, ELOOP, path_);
    return info;
  }

  /// None, with errno, where the entry of the walk's path cannot be opened as a directory. When there are no
  /// descriptors left, the directories above give up theirs, and the one that the entry is in does so last.
  sys::DirStream openEntry(const char* name) {
    for (;;) {
      const Level& level = levels_.back();
      sys::DirStream dir = level.isOpen() ? at::tryOpen(level.fd(), name) : openByPath(path_);
      const int errnum = errno;
      const bool lacking = !dir && (errnum == EMFILE || errnum == ENFILE);
      if (lacking && closeFarthest()) continue;
      errno = errnum;
      return dir;
    }
  }

  bool closeFarthest() {
    if (firstOpen_ == levels_.size() || !levels_[firstOpen_].close()) return false;
    ++firstOpen_;
    return true;
  }

  /// The descriptor of the directory that the walk is in, which is opened again if need be.
  int fd() {
    if (!levels_.back().isOpen()) reopen(levels_.back());
    return levels_.back().fd();
  }

  void reopen(Level& level) {
    const std::string path = path_.substr(0, level.pathLength());
    sys::DirStream dir = openByPath(path);
    needOpen(dir, path);
    // Who has put another directory there meanwhile shall not lose what the names of this one are in it.
    if (!level.reopen(dir)) fail(KES_HERE, errno, path);
    firstOpen_ = levels_.size() - 1;
  }

  std::string path_;
  std::vector<Level> levels_;
  std::size_t firstOpen_ = 0;  ///< this level and all behind it are open, those before it are not
  int links_ = 0;              ///< followed; there is no way back from one, since it cannot be removed
};

}  // namespace

void Ops::removeTree(const char* path) {
  if (path == nullptr) PathErrors::raise(KES_HERE, EFAULT, path);
  TreeRemoval(path).run();
}

namespace {

/// False when the directory above is missing. No part of its caller: what only a handler leads to is laid
/// apart from its function, where a backtrace finds no name for it.
[[gnu::noinline]] bool madeDir(const std::string& path, const Access* access) {
  try {
    Ops::mkdir(path.c_str(), access);
    return true;
  } catch (const NoSuchFileError&) {
    return false;
  }
}

/// Cuts at the last '/'; several in a row are one, or a directory would be made twice. npos without any.
std::size_t cutAtSlash(const std::string& text, std::size_t length) {
  const std::size_t slash = text.find_last_of('/', length - 1);
  return length == 0 || slash == std::string::npos ? std::string::npos
                                                   : text.find_last_not_of('/', slash) + 1;
}

bool isDirectory(const char* path) {
  struct stat status;
  return ::stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

void Ops::makedirs(const char* path, const Access* access) {
  const Path whole(path);
  std::vector<std::size_t> lengths = {whole.size()};
  while (!madeDir(whole.substr(0, lengths.back()), access)) {
    const std::size_t shorter = cutAtSlash(whole, lengths.back());
    if (shorter == Path::npos) raiseAt(KES_HERE, FsError(path, ENOENT));
    lengths.push_back(shorter);
  }
  for (lengths.pop_back(); !lengths.empty(); lengths.pop_back()) {
    mkdir(whole.substr(0, lengths.back()).c_str(), access);
  }
}

bool Ops::tryMakedirs(const char* path, const Access* access) {
  try {
    makedirs(path, access);
    return true;
  } catch (const FileExistsError&) {
    if (!isDirectory(path)) throw;
    return false;
  }
}

}  // namespace kes::fs
