#include "kespal/fs/File.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>

#include "error/Report.h"
#include "fs/TempTemplate.h"
#include "kespal/error/StaticError.h"
#include "os/posix/fs/At.h"
#include "os/posix/fs/Errors.h"
#include "sys/NoCancel.h"

namespace kes::fs {

namespace {

constexpr mode_t ownerOnly = S_IRUSR | S_IWUSR;

int accessFlag(File::Mode mode) noexcept {
  switch (mode) {
    case File::WRITE:
      return O_WRONLY;
    case File::READ_WRITE:
      return O_RDWR;
    default:
      return O_RDONLY;
  }
}

int systemFlags(File::Mode mode, unsigned flags) noexcept {
  int result = accessFlag(mode) | O_CLOEXEC;
  if ((flags & File::CREATE) != 0) result |= O_CREAT;
  if ((flags & File::EXCLUSIVE) != 0) result |= O_CREAT | O_EXCL;
  if ((flags & File::TRUNCATE) != 0) result |= O_TRUNC;
  if ((flags & File::NO_FOLLOW) != 0) result |= O_NOFOLLOW;
  return result;
}

}  // namespace

File* File::m_null_in = nullptr;
File* File::m_null_out = nullptr;

File::~File() {
  if (fd_ != -1) doReporting({"Error closing file:\n\n"}, [this] { File::close(); });
}

void File::open(const char* path, const Mode& mode, const unsigned& flags, const Access* access) {
  close();
  path_ = path != nullptr ? path : "";
  const mode_t bits = access != nullptr ? mode_t{access->mode()} : ownerOnly;
  const int asked = systemFlags(mode, flags);
  fd_ = onPath([=](const char* name) { return ::open(name, asked, bits); }, path);
  if (fd_ != -1) return;
  const int errnum = errno;
  if ((flags & NO_FOLLOW) != 0) NoFollowErrors::forThese(KES_HERE, errnum, path);
  OpenErrors::raise(KES_HERE, errnum, path);
}

void File::open(const TempType& /*type*/, std::string& name) {
  close();
  const std::string pattern = tempTemplate(name);
  // A failing call leaves the characters it tried last in its argument: the error shall name the template.
  std::string created = path_ = pattern;
  const sys::NoCancel untilOwned;  // one in the middle would leave a file whose name nobody knows
  fd_ = PathErrors::check(KES_HERE, ::mkostemp(created.data(), O_CLOEXEC), pattern);
  path_ = created;  // which takes no memory: the two are of one length
  name = std::move(created);
}

void File::open(Pipe& pipe, bool readEnd) {
  close();
  path_.clear();
  fd_ = std::exchange(readEnd ? pipe.readEnd : pipe.writeEnd, -1);
  if (fd_ == -1) raiseAt(KES_HERE, UsageError("bad pipe end passed"));
}

void File::close() {
  if (fd_ == -1) return;
  const sys::NoCancel noCancel;  // a thread that is cancelled here would leave the descriptor open
  // The descriptor is gone whatever the call answers: on EINTR, too, another thread may have it by now.
  check(KES_HERE, ::close(std::exchange(fd_, -1)));
}

void File::setAccess(const Access& access) {
  if (fd_ == -1) raiseAt(KES_HERE, UsageError("no file opened"));
  at::setAccessPriv(fd_, access, path_);
}

void File::truncate(std::size_t length) { check(KES_HERE, ::ftruncate(fd_, static_cast<off_t>(length))); }

void File::init() {
  exit();
  auto in = std::make_unique<File>(), out = std::make_unique<File>();
  in->open(NULLDEV, READ);
  out->open(NULLDEV, WRITE);
  m_null_in = in.release();
  m_null_out = out.release();
}

void File::exit() noexcept {
  delete std::exchange(m_null_out, nullptr);
  delete std::exchange(m_null_in, nullptr);
}

}  // namespace kes::fs
