#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cerrno>
#include <memory>
#include <new>

#include "kesos/files.h"
#include "paths.h"
#include "sys/NoCancel.h"
#include "sys/Owner.h"
#include "sys/Retry.h"

namespace {

using kes::kesos::failWith;
using kes::sys::Descriptor;
using kes::sys::retry;

constexpr mode_t setIdBits = S_ISUID | S_ISGID;

/// Whether the file could be closed, which is when some file systems say that it could not be written.
bool close(Descriptor& file) {
  const kes::sys::NoCancel untilClosed;
  return ::close(file.release()) == 0;
}

bool writeAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t count = retry([=] { return ::write(fd, data, size); });
    if (count < 0) return false;
    if (count == 0) return failWith(ENOSPC) != 0;  // or it would go on for ever
    data += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

bool copyContent(int from, int to, std::size_t blockSize) {
  const std::unique_ptr<char[]> buffer(new (std::nothrow) char[blockSize]);
  if (buffer == nullptr) return failWith(ENOMEM) != 0;
  for (;;) {
    const ssize_t count = retry([&] { return ::read(from, buffer.get(), blockSize); });
    if (count <= 0) return count == 0;
    if (!writeAll(to, buffer.get(), static_cast<std::size_t>(count))) return false;
  }
}

/// A file with set-id bits runs with the rights of its owner, so at no moment may it hold what is not yet, or
/// not at all, its owner's: whoever reads the directory could run it. A new copy gets the bits last of all,
/// and an existing file loses its own before anything is written.
class Copy {
 public:
  Copy(const char* to, const struct stat& source) : to_(to), source_(source) {}

  bool open() {
    const mode_t mode = source_.st_mode & 07777 & ~setIdBits;
    file_.reset(openDestination(mode));
    if (file_.get() < 0 || ::fstat(file_.get(), &state_) != 0) return false;
    if (state_.st_uid != ::geteuid()) isNew_ = false;  // somebody else was first where a link leads
    return (state_.st_mode & setIdBits) == 0 ||
           ::fchmod(file_.get(), state_.st_mode & 07777 & ~setIdBits) == 0;
  }

  bool fill(int from) {
    return copyContent(from, file_.get(),
                       state_.st_blksize > 0 ? static_cast<std::size_t>(state_.st_blksize) : 512);
  }

  bool finish() {
    const bool given = giveAway();
    if (!close(file_) || !given) return false;
    const utimbuf times{source_.st_atime, source_.st_mtime};
    return ::utime(to_, &times) == 0;
  }

 private:
  /// Notes whether the file is new. It is, too, where a link was that led nowhere: the link stays.
  int openDestination(mode_t mode) {
    isNew_ = true;
    int fd = ::open(to_, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd >= 0 || errno != EEXIST) return fd;
    fd = ::open(to_, O_WRONLY | O_TRUNC | O_CLOEXEC);
    isNew_ = fd < 0 && errno == ENOENT;
    return isNew_ ? ::open(to_, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode) : fd;
  }

  /// The source's owner and, for a new file, the source's set-id bits.
  bool giveAway() {
    if (::fchown(file_.get(), source_.st_uid, source_.st_gid) != 0) return false;
    const mode_t setId = source_.st_mode & setIdBits;
    return !isNew_ || setId == 0 || ::fchmod(file_.get(), (state_.st_mode & 07777) | setId) == 0;
  }

  const char* to_;
  const struct stat& source_;
  Descriptor file_;
  struct stat state_ {};  ///< of the copy, before anything was written
  bool isNew_ = false;
};

}  // namespace

int KesOsCopyFile(const char* from, const char* to, char failIfExists) {
  if (from == nullptr || to == nullptr) return failWith(EFAULT);
  if (failIfExists != 0 && KesOsFileExists(to) != 0) return failWith(EEXIST);
  Descriptor source(::open(from, O_RDONLY | O_CLOEXEC));
  struct stat state {};
  if (!source || ::fstat(source.get(), &state) != 0) return 0;
  Copy copy(to, state);
  const bool copied = copy.open() && copy.fill(source.get()) && copy.finish();
  return close(source) && copied ? 1 : 0;
}
