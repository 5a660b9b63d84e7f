#include "kespal/fs/StreamFile.h"

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "kespal/error/OsError.h"
#include "os/System.h"

namespace kes::fs {

namespace {

/// Linux transfers no more than this at once and returns a short count; macOS refuses more than INT_MAX.
/// A call for more gets the short count on both.
constexpr std::size_t mostAtOnce = 0x7ffff000;

int whence(StreamFile::SeekBase base) noexcept {
  switch (base) {
    case StreamFile::FROM_CURRENT:
      return SEEK_CUR;
    case StreamFile::FROM_END:
      return SEEK_END;
    default:
      return SEEK_SET;
  }
}

[[noreturn, gnu::always_inline]] inline void raiseRead(const Site& site, int errnum) {
  switch (errnum) {
    case ESRCH:
      raiseAt(site, NoSuchProcessError(errnum));
    default:
      raiseAt(site, OsError(errnum));
  }
}

}  // namespace

std::size_t StreamFile::read(void* buffer, const std::size_t& size) {
  const ssize_t count = ::read(fd(), buffer, std::min(size, mostAtOnce));
  if (count == -1) raiseRead(KES_HERE, errno);
  return static_cast<std::size_t>(count);
}

std::size_t StreamFile::write(const void* buffer, const std::size_t& size) {
  const ssize_t count = ::write(fd(), buffer, std::min(size, mostAtOnce));
  if (count == -1) raiseAt(KES_HERE, OsError(errno));
  return static_cast<std::size_t>(count);
}

bool StreamFile::flush() {
  if (::fsync(fd()) == 0) return true;
  const int errnum = errno;
  if (!os::nothingToSync(errnum)) raiseAt(KES_HERE, OsError(errnum));
  return false;
}

std::size_t StreamFile::seek(const std::size_t& offset, SeekBase base) {
  const off_t position = ::lseek(fd(), static_cast<off_t>(offset), whence(base));
  if (position == -1) raiseAt(KES_HERE, OsError(errno));
  return static_cast<std::size_t>(position);
}

}  // namespace kes::fs
