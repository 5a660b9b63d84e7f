#include <cerrno>
#include <cstdio>
#include <string>

#include "kespal/fs/Copier.h"
#include "kespal/fs/Info.h"
#include "kespal/fs/Ops.h"
#include "kespal/fs/StreamFile.h"
#include "os/posix/fs/Errors.h"
#include "sys/AtEnd.h"
#include "sys/NoCancel.h"

namespace kes::fs {

namespace {

/// What a move copies with when the caller has no buffer to offer.
constexpr std::size_t moveBufferSize = std::size_t{64} * 1024;

std::string arrow(const char* from, const char* to) {
  return std::string(from != nullptr ? from : "") + " -> " + (to != nullptr ? to : "");
}

/// For a copy whose move was not completed. What goes wrong here is of no interest: another error, the reason
/// for all this, is on its way.
void removeQuietly(const char* copy) noexcept {
  const sys::NoCancel untilDone;
  try {
    Ops::remove(copy);
  } catch (...) {  // NOLINT(bugprone-empty-catch)
  }
}

/// Opening anything else may wait for ever, as a pipe does for its writer. A link that is not followed is
/// refused when it is opened, and a directory when it is read.
bool canBeCopied(const Info& source) { return source.isRegular() || source.isDir() || source.isLink(); }

/// It is the first read that fails. That comes too late where the target was made before.
[[noreturn]] void refuseDirectory(const char* from) {
  StreamFile source;
  source.open(from, File::READ);
  char byte;
  source.read(&byte, sizeof byte);
  raiseAt(KES_HERE, OsError(EISDIR));  // some systems let a directory be read
}

/// False when the two lie on different devices. No part of its caller: what only a handler leads to is laid
/// apart from its function, where a backtrace finds no name for it.
[[gnu::noinline]] bool renamed(const char* from, const char* to, const EnumBitset<Flags>& flags) {
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
  if (onPath(std::rename, from, to) == 0) return;
  const int errnum = errno;
  RenameErrors::raise(KES_HERE, errnum, arrow(from, to));
}

void Ops::move(const char* from, const char* to, const EnumBitset<Flags>& flags, char* buffer,
               std::size_t size) {
  // A status that follows links never says "link" on these systems; but it says that there is no source,
  // or that it is a dangling link, before anything else is tried.
  const bool follow = !flags.test(Flags::NO_FOLLOW);
  Info source;
  if (follow) source = Info::get(from, follow);
  if (!source.isLink() && renamed(from, to, flags)) return;
  Copier copier(buffer, size, flags | Flags::COPY_ACCESS);  // half a buffer is refused whatever the source is
  if (!follow) source = Info::get(from, follow);
  if (!canBeCopied(source)) PathErrors::raise(KES_HERE, EINVAL, from);
  if (source.isDir()) refuseDirectory(from);
  if (!copier.haveBuffer()) copier.allocateBuffer(moveBufferSize);
  copier.copy(from, to);
  sys::AtEnd takingBack([to] { removeQuietly(to); });
  remove(from);
  takingBack.dismiss();
}

}  // namespace kes::fs
