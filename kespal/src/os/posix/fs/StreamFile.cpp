#include "kespal/fs/StreamFile.h"

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "os/System.h"
#include "os/posix/fs/Errors.h"

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

}  // namespace

std::size_t StreamFile::read(void* buffer, const std::size_t& size) {
  const std::size_t most = std::min(size, mostAtOnce);
  return static_cast<std::size_t>(ReadErrors::check(KES_HERE, ::read(fd(), buffer, most)));
}

std::size_t StreamFile::write(const void* buffer, const std::size_t& size) {
  const std::size_t most = std::min(size, mostAtOnce);
  return static_cast<std::size_t>(check(KES_HERE, ::write(fd(), buffer, most)));
}

bool StreamFile::flush() {
  if (::fsync(fd()) == 0) return true;
  const int errnum = errno;
  if (!os::nothingToSync(errnum)) raiseAt(KES_HERE, OsError(errnum));
  return false;
}

std::size_t StreamFile::seek(const std::size_t& offset, SeekBase base) {
  return static_cast<std::size_t>(check(KES_HERE, ::lseek(fd(), static_cast<off_t>(offset), whence(base))));
}

}  // namespace kes::fs
