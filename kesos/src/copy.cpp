#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <utility>

#include "kesos/files.h"
#include "paths.h"

namespace {

/// A file descriptor that is closed with its owner.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    const int error = errno;
    close();
    errno = error;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return fd_; }

  /// Not to be cancelled: it would leave the file open, or a destructor by way of an exception.
  bool close() {
    if (fd_ < 0) return true;
    int before = 0;
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    const bool closed = ::close(std::exchange(fd_, -1)) == 0;
    ::pthread_setcancelstate(before, &before);
    return closed;
  }

 private:
  int fd_;
};

template <typename Call>
ssize_t repeatWhenInterrupted(Call call) {
  ssize_t result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

bool writeAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t count = repeatWhenInterrupted([=] { return ::write(fd, data, size); });
    if (count < 0) return false;
    data += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

bool copyContent(int from, int to, std::size_t blockSize) {
  const std::unique_ptr<char[]> buffer(new (std::nothrow) char[blockSize]);
  if (buffer == nullptr) return kes::kesos::failWith(ENOMEM) != 0;
  for (;;) {
    const ssize_t count = repeatWhenInterrupted([&] { return ::read(from, buffer.get(), blockSize); });
    if (count <= 0) return count == 0;
    if (!writeAll(to, buffer.get(), static_cast<std::size_t>(count))) return false;
  }
}

/// Gives the copy the source's owner. A change of owner takes away the set-id bits that a new file was
/// created with; it gets them back.
bool giveOwner(int fd, const struct stat& source, const struct stat& created, bool isNew) {
  if (::fchown(fd, source.st_uid, source.st_gid) != 0) return false;
  if (!isNew || (created.st_mode & (S_ISUID | S_ISGID)) == 0) return true;
  return ::fchmod(fd, created.st_mode & 07777) == 0;
}

bool copyTo(const char* to, int from, const struct stat& source) {
  const bool isNew = ::access(to, F_OK) != 0;
  Descriptor target(::open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, source.st_mode & 07777));
  struct stat state {};
  if (target.get() < 0 || ::fstat(target.get(), &state) != 0) return false;
  const std::size_t blockSize = state.st_blksize > 0 ? static_cast<std::size_t>(state.st_blksize) : 512;
  if (!copyContent(from, target.get(), blockSize)) return false;
  const bool given = giveOwner(target.get(), source, state, isNew);
  if (!target.close() || !given) return false;
  const utimbuf times{source.st_atime, source.st_mtime};
  return ::utime(to, &times) == 0;
}

}  // namespace

int KesOsCopyFile(const char* from, const char* to, char failIfExists) {
  if (from == nullptr || to == nullptr) return kes::kesos::failWith(EFAULT);
  if (failIfExists != 0 && KesOsFileExists(to) != 0) return kes::kesos::failWith(EEXIST);
  Descriptor source(::open(from, O_RDONLY | O_CLOEXEC));
  struct stat state {};
  if (source.get() < 0 || ::fstat(source.get(), &state) != 0) return 0;
  const bool copied = copyTo(to, source.get(), state);
  return source.close() && copied ? 1 : 0;
}
