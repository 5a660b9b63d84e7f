#include "kespal/fs/Copier.h"

#include <cerrno>

#include "kespal/error/FsError.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"

namespace kes::fs {

namespace {

constexpr std::size_t ownBufferSize = 1024;
constexpr const char* badBuffer = "bad buffer passed to Copier instance";

}  // namespace

Copier::Copier(char* buffer, std::size_t size, const EnumBitset<Flags>& flags, const Access* given)
    : flags_(flags), callerBuffer_(buffer), bufferSize_(size), givenAccess_(given) {
  if ((buffer == nullptr) != (size == 0)) raiseAt(KES_HERE, UsageError(badBuffer));
}

bool Copier::haveBuffer() const noexcept { return callerBuffer_ != nullptr || ownBuffer_ != nullptr; }

char* Copier::getBufferPointer() const {
  if (!haveBuffer()) raiseAt(KES_HERE, UsageError(badBuffer));
  return callerBuffer_ != nullptr ? callerBuffer_ : ownBuffer_.get();
}

void Copier::allocateBuffer(std::size_t size) {
  if (haveBuffer()) return;
  if (size == 0) raiseAt(KES_HERE, UsageError(badBuffer));
  ownBuffer_.reset(new char[size]);
  bufferSize_ = size;
}

// The files that a copy opens live in the form's own frame: whatever happens, they are closed, and the
// caller's streams are not. Only here is a failing close an error; after another one it is only reported.

void Copier::copy(const char* from, const char* to) {
  StreamFile source, target;
  openSource(source, from);
  openTarget(target, to);
  copyData(source, target);
  source.close();
  target.close();
}

void Copier::copy(StreamFile& from, StreamFile& to) {
  borrowSource(from);
  borrowTarget(to);
  copyData(from, to);
}

void Copier::copy(const char* from, StreamFile& to) {
  StreamFile source;
  openSource(source, from);
  borrowTarget(to);
  copyData(source, to);
  source.close();
}

void Copier::copy(StreamFile& from, const char* to) {
  StreamFile target;
  borrowSource(from);
  openTarget(target, to);
  copyData(from, target);
  target.close();
}

void Copier::openSource(StreamFile& source, const char* from) {
  source.open(from, File::READ, flags_.test(Flags::NO_FOLLOW) ? File::NO_FOLLOW : 0u);
  examineSource(source);
}

void Copier::borrowSource(StreamFile& source) {
  source.seek(0);
  examineSource(source);
}

void Copier::examineSource(StreamFile& source) {
  source_ = Info::get(source.fd());
  access_ = givenAccess_ != nullptr ? *givenAccess_ : source_.access();
}

// Emptying the target must not empty the source: the two may be one file under two names, or twice open.

bool Copier::isSource(const Info& target) const noexcept {
  return source_.isRegular() && target.native().st_dev == source_.native().st_dev &&
         target.native().st_ino == source_.native().st_ino;
}

bool Copier::isSource(const char* target) const {
  struct stat status;
  return target != nullptr && ::stat(target, &status) == 0 && isSource(Info(status));
}

void Copier::openTarget(StreamFile& target, const char* to) {
  const bool overwrite = flags_.test(Flags::OVERWRITE);
  if (overwrite && isSource(to)) raiseAt(KES_HERE, FsError(to, EINVAL));
  target.open(to, File::WRITE, overwrite ? File::CREATE | File::TRUNCATE : File::EXCLUSIVE, &access_);
}

void Copier::borrowTarget(StreamFile& target) {
  target.seek(0);
  if (isSource(Info::get(target.fd()))) raiseAt(KES_HERE, OsError(EINVAL));
  target.truncate(0);
}

void Copier::copyData(StreamFile& source, StreamFile& target) {
  if (givenAccess_ != nullptr || flags_.test(Flags::COPY_ACCESS)) target.setAccess(access_);
  allocateBuffer(ownBufferSize);
  char* const buffer = getBufferPointer();
  while (const std::size_t count = source.read(buffer, bufferSize_)) {
    for (std::size_t done = 0; done < count;) {
      const std::size_t written = target.write(buffer + done, count - done);
      if (written == 0) raiseAt(KES_HERE, OsError(EIO));  // it would be so for ever
      done += written;
    }
  }
}

}  // namespace kes::fs
