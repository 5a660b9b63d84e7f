#include <cerrno>
#include <cstdio>
#include <string>

#include "kespal/NoCopy.h"
#include "kespal/error/FsError.h"
#include "kespal/error/OsError.h"
#include "kespal/fs/Copier.h"
#include "kespal/fs/Info.h"
#include "kespal/fs/Ops.h"
#include "os/posix/fs/NullPath.h"
#include "sys/NoCancel.h"

namespace kes::fs {

namespace {

/// What a move copies with when the caller has no buffer to offer.
constexpr std::size_t moveBufferSize = std::size_t{64} * 1024;

std::string arrow(const char* from, const char* to) {
  return std::string(from != nullptr ? from : "") + " -> " + (to != nullptr ? to : "");
}

[[noreturn, gnu::always_inline]] inline void raiseRename(const Site& site, const std::string& paths,
                                                         int errnum) {
  switch (errnum) {
    case EXDEV:
      raiseAt(site, NotSameDeviceError(paths, errnum));
    case EROFS:
      raiseAt(site, ReadOnlyFileSystemError(paths, errnum));
    default:
      raiseAt(site, FsError(paths, errnum));
  }
}

/// Takes a copy back, unless the move it belongs to was completed. What goes wrong meanwhile is of no
/// interest: another error, the reason for all this, is on its way.
class TakeBack : NoCopy {
 public:
  explicit TakeBack(const char* copy) noexcept : copy_(copy) {}
  ~TakeBack() {
    if (copy_ == nullptr) return;
    const sys::NoCancel noCancel;
    try {
      Ops::remove(copy_);
    } catch (...) {  // NOLINT(bugprone-empty-catch)
    }
  }
  void keepCopy() noexcept { copy_ = nullptr; }

 private:
  const char* copy_;
};

void copyForMove(const char* from, const char* to, const EnumBitset<Flags>& flags, char* buffer,
                 std::size_t size) {
  Copier copier(buffer, size, flags | Flags::COPY_ACCESS);
  if (!copier.haveBuffer()) copier.allocateBuffer(moveBufferSize);
  copier.copy(from, to);
}

/// False when the two lie on different devices.
bool renamed(const char* from, const char* to, const EnumBitset<Flags>& flags) {
  try {
    Ops::rawMove(from, to, flags);
    return true;
  } catch (const NotSameDeviceError&) {
    return false;
  }
}

}  // namespace

void Ops::rawMove(const char* from, const char* to, const EnumBitset<Flags>& flags) {
  if (!flags.test(Flags::OVERWRITE) && exists(to, /*follow=*/true)) raiseAt(KES_HERE, OsError(EEXIST));
  const bool named = from != nullptr && to != nullptr;
  const int result = named ? std::rename(from, to) : refuseNull();
  if (result == 0) return;
  const int errnum = errno;
  raiseRename(KES_HERE, arrow(from, to), errnum);
}

void Ops::move(const char* from, const char* to, const EnumBitset<Flags>& flags, char* buffer,
               std::size_t size) {
  // A status that follows links never says "link" on these systems; but it says that there is no source,
  // or that it is a dangling link, before anything else is tried.
  const bool isLink = !flags.test(Flags::NO_FOLLOW) && Info::get(from, /*follow=*/true).isLink();
  if (!isLink && renamed(from, to, flags)) return;
  copyForMove(from, to, flags, buffer, size);
  TakeBack onFailure(to);
  remove(from);
  onFailure.keepCopy();
}

}  // namespace kes::fs
