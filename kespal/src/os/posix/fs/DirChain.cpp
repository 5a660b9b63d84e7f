#include "os/posix/fs/DirChain.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "os/posix/fs/At.h"
#include "os/posix/fs/Errors.h"
#include "os/posix/fs/OpenAtOnce.h"

namespace kes::fs {

namespace {

/// So many directories stay open besides the top. In a deeper tree the upper ones are opened again on the way
/// back.
constexpr std::size_t mostOpen = 8;

int openDirectory(int above, const char* name) {
  return openAtOnce(above, name, O_RDONLY | O_NONBLOCK | O_DIRECTORY | O_NOFOLLOW);
}

bool isLacking(int errnum) noexcept { return errnum == EMFILE || errnum == ENFILE; }

}  // namespace

Identity identityOf(const struct stat& status) noexcept { return {status.st_dev, status.st_ino}; }

DirChain::DirChain(std::string top) : path_(std::move(top)) {
  // Behind a slash even a link is followed.
  while (path_.size() > 1 && path_.back() == '/') path_.pop_back();
}

int DirChain::fd() const noexcept {
  if (!levels_.empty()) return levels_.back().fd.get();
  return lost_ ? -1 : AT_FDCWD;
}

std::string DirChain::pathOf(const char* name) const {
  if (levels_.empty()) return path_;
  std::string path;
  path.reserve(path_.size() + 1 + std::strlen(name));
  path = path_;
  if (path.back() != '/') path += '/';
  return path += name;
}

std::size_t DirChain::topLength() const noexcept {
  const std::size_t length = levels_.front().pathLength;
  return path_[length - 1] == '/' ? length : length + 1;
}

bool DirChain::enter(const char* name) {
  sys::Descriptor fd(open(name));
  struct stat status;
  if (!fd || ::fstat(fd.get(), &status) != 0) return false;
  const Identity identity = identityOf(status);
  const bool isTop = levels_.empty();
  std::string path = pathOf(name);
  const std::size_t nameStart = isTop ? 0 : path.size() - std::strlen(name);
  levels_.reserve(levels_.size() + 1);
  if (!identities_.insert(identity).second) {
    errno = ELOOP;  // mounted or linked into itself
    return false;
  }
  levels_.push_back({std::move(fd), identity, nameStart, path.size()});
  path_.swap(path);
  if (levels_.size() > firstOpen_ + mostOpen) closeFarthest();
  return true;
}

int DirChain::open(const char* name) {
  for (;;) {
    const int fd = openDirectory(this->fd(), levels_.empty() ? path_.c_str() : name);
    if (fd != -1 || !isLacking(errno) || !closeFarthest()) return fd;
  }
}

bool DirChain::closeFarthest() noexcept {
  const int errnum = errno;
  if (firstOpen_ + 1 >= levels_.size()) return false;
  levels_[firstOpen_++].fd.reset();
  errno = errnum;
  return true;
}

void DirChain::leave() {
  const Level left = std::move(levels_.back());
  levels_.pop_back();
  identities_.erase(left.identity);
  if (levels_.empty()) return;
  path_.resize(levels_.back().pathLength);
  if (!levels_.back().fd) reopenInnermost(left.fd.get());
}

/// The system's ".." is the directory above wherever that lies now. It may be closed to us, and then the way
/// is the one from the top.
void DirChain::reopenInnermost(int below) {
  sys::Descriptor fd(openDirectory(below, ".."));
  struct stat status;
  const auto isIt = [&] { return fd && ::fstat(fd.get(), &status) == 0 && identityOf(status) == identity(); };
  if (!isIt()) fd = openFromTop();
  if (!fd) lose(errno);
  if (!isIt()) lose(ESTALE);
  levels_.back().fd = std::move(fd);
  firstOpen_ = levels_.size() - 1;
}

sys::Descriptor DirChain::openFromTop() {
  sys::Descriptor reached;
  int above = topFd();
  for (std::size_t at = 1; at < levels_.size(); ++at) {
    const Level& level = levels_[at];
    const std::string name = path_.substr(level.nameStart, level.pathLength - level.nameStart);
    sys::Descriptor next(openDirectory(above, name.c_str()));
    if (!next) return {};
    reached = std::move(next);
    above = reached.get();
  }
  return reached;
}

void DirChain::lose(int errnum) {
  lost_ = true;
  levels_.clear();
  identities_.clear();
  PathErrors::raise(KES_HERE, errnum, path_);
}

namespace {

/// A descriptor that the stream may own.
sys::Descriptor duplicate(DirChain& chain) {
  for (;;) {
    sys::Descriptor copy(::fcntl(chain.fd(), F_DUPFD_CLOEXEC, 0));
    if (copy || !isLacking(errno) || !chain.closeFarthest()) return copy;
  }
}

}  // namespace

DirListing::DirListing(DirChain& chain) {
  sys::Descriptor fd = duplicate(chain);
  if (!fd) PathErrors::raise(KES_HERE, errno, chain.path());
  const sys::DirStream stream(::fdopendir(fd.get()));
  if (!stream) PathErrors::raise(KES_HERE, errno, chain.path());
  fd.release();
  try {
    while (const dirent* entry = at::nextEntry(stream.get())) {
      entries_.push_back(static_cast<char>(entry->d_type));
      entries_.insert(entries_.end(), entry->d_name, entry->d_name + std::strlen(entry->d_name) + 1);
    }
  } catch (const OsError& error) {
    PathErrors::raise(KES_HERE, error.errnum(), chain.path());
  }
}

const char* DirListing::nextName() noexcept {
  if (next_ == entries_.size()) return nullptr;
  type_ = static_cast<unsigned char>(entries_[next_]);
  const char* const name = entries_.data() + next_ + 1;
  next_ += std::strlen(name) + 2;
  return name;
}

}  // namespace kes::fs
