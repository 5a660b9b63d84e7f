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
#include "kespal/error/FsError.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/Ops.h"
#include "os/posix/fs/NullPath.h"
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

[[noreturn, gnu::always_inline]] inline void raiseOpen(const Site& site, const char* path, int errnum,
                                                       bool noFollow) {
  switch (errnum) {
    case EPERM:
    case EACCES:
      raiseAt(site, FileAccessError(path, errnum));
    case ENOENT:
      raiseAt(site, NoSuchFileError(path, errnum));
    case ETXTBSY:
      raiseAt(site, FileBusyError(path, errnum));
    case ELOOP:
      if (noFollow) raiseAt(site, IsASymlinkError(path, errnum));
      [[fallthrough]];
    default:
      raiseAt(site, FsError(path, errnum));
  }
}

}  // namespace

File* File::m_null_in = nullptr;
File* File::m_null_out = nullptr;

File::~File() {
  if (fd_ != -1) doReporting({"Error closing file:\n\n"}, [this] { File::close(); });
}

void File::open(const char* path, const Mode& mode, const unsigned& flags, const Access* access) {
  close();
  const mode_t bits = access != nullptr ? mode_t{access->mode()} : ownerOnly;
  fd_ = path != nullptr ? ::open(path, systemFlags(mode, flags), bits) : refuseNull();
  if (fd_ == -1) raiseOpen(KES_HERE, path, errno, (flags & NO_FOLLOW) != 0);
}

void File::open(const TempType& /*type*/, std::string& name) {
  close();
  const std::string pattern = tempTemplate(name);
  // A failing call leaves the characters it tried last in its argument: the error shall name the template.
  std::string created = pattern;
  fd_ = ::mkostemp(created.data(), O_CLOEXEC);
  if (fd_ == -1) raiseAt(KES_HERE, FsError(pattern, errno));
  name = std::move(created);
}

void File::open(Pipe& pipe, bool readEnd) {
  close();
  fd_ = std::exchange(readEnd ? pipe.readEnd : pipe.writeEnd, -1);
  if (fd_ == -1) raiseAt(KES_HERE, UsageError("bad pipe end passed"));
}

void File::close() {
  if (fd_ == -1) return;
  const sys::NoCancel noCancel;  // a thread that is cancelled here would leave the descriptor open
  // The descriptor is gone whatever the call answers: on EINTR, too, another thread may have it by now.
  if (::close(std::exchange(fd_, -1)) != 0) raiseAt(KES_HERE, OsError(errno));
}

void File::setAccess(const Access& access) {
  if (fd_ == -1) raiseAt(KES_HERE, UsageError("no file opened"));
  Ops::setAccess(fd_, access);
}

void File::truncate(std::size_t length) {
  if (::ftruncate(fd_, static_cast<off_t>(length)) != 0) raiseAt(KES_HERE, OsError(errno));
}

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
