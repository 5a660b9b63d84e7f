#pragma once  // since 0.1

#include <cstddef>
#include <memory>

#include "kespal/EnumBitset.h"
#include "kespal/Export.h"
#include "kespal/NoCopy.h"
#include "kespal/fs/Access.h"
#include "kespal/fs/Info.h"
#include "kespal/fs/Ops.h"
#include "kespal/fs/StreamFile.h"

KES_EXPORT_BEGIN

namespace kes::fs {

/// Copies the bytes of one file into another, with plain reads and writes through one buffer. It can be
/// used again for the next file; one thread uses it at a time. What it opens by name it closes, whatever
/// happens; the caller's streams stay open. An error may leave a partly written target: removing it is the
/// caller's business. Errors are those of File::open(), setAccess(), truncate() and close(), of StreamFile's
/// read(), write() and seek(), and of Info::get(). A write that takes nothing is an OsError (EIO). A
/// directory as source is the error of reading it (OsError, EISDIR), when the target is there already.
class Copier : NoCopy {
 public:
  /// A caller's buffer, of `size` bytes, must outlive the copier; without one (null and 0) it uses its own.
  /// UsageError for one without the other. Of the flags, COPY_ACCESS gives the target the source's
  /// permission bits, owner and group; NO_FOLLOW refuses a link as named source (IsASymlinkError);
  /// OVERWRITE allows a named target to exist. `given`, if not null, replaces the source's rights and is
  /// applied without COPY_ACCESS; it must outlive the copier.
  explicit Copier(char* buffer = nullptr, std::size_t size = 0, const EnumBitset<Flags>& flags = {},
                  const Access* given = nullptr);

  /// Makes an own buffer of `size` bytes, unless there is a buffer already. UsageError for no bytes.
  void allocateBuffer(std::size_t size);
  /// The caller's buffer, else the own one. UsageError when there is none yet.
  char* getBufferPointer() const;
  bool haveBuffer() const noexcept;  ///< whether there is one, the caller's or an own one

  /// Copies by name. The target is created with the permission bits that it is to have; without OVERWRITE
  /// an existing one is left untouched (FsError, EEXIST). A file is not copied onto itself, under any name
  /// (FsError with the target's path, EINVAL).
  void copy(const char* from, const char* to);
  /// Copies all of one open file into another, which is emptied first. Both are read and written from
  /// their start: what has none, such as a pipe, is an OsError (ESPIPE). Two streams on one file are an
  /// OsError (EINVAL), and nothing is emptied.
  void copy(StreamFile& from, StreamFile& to);
  /// The mixed forms: each side as above. An open target on the named file is an OsError (EINVAL), too.
  void copy(const char* from, StreamFile& to);
  void copy(StreamFile& from, const char* to);

 private:
  void openSource(StreamFile& source, const char* from);
  void borrowSource(StreamFile& source);
  void openTarget(StreamFile& target, const char* to);
  void borrowTarget(StreamFile& target);
  void examineSource(StreamFile& source);
  bool isSource(const Info& target) const noexcept;
  bool isSource(const char* target) const;
  /// The rights first, if they are to be copied.
  void copyData(StreamFile& source, StreamFile& target);

  EnumBitset<Flags> flags_;
  char* callerBuffer_;
  std::unique_ptr<char[]> ownBuffer_;
  std::size_t bufferSize_;
  Access access_;
  const Access* givenAccess_;
  Info source_;
};

}  // namespace kes::fs

KES_EXPORT_END
