#pragma once  // since 0.1

#include <string>

#include "kespal/Export.h"
#include "kespal/error/DynError.h"
#include "kespal/error/OsError.h"

KES_EXPORT_BEGIN

namespace kes {

/// A file-system operation failed on a path. Which subclass an errno becomes is written at the operation
/// that raises it; whatever has no subclass there is an FsError itself.
class FsError : public Raisable<FsError, DynError> {
 public:
  /// The path as the operation got it, and the errno that it failed with.
  FsError(const std::string& path, int errnum);
  /// A null path counts as the empty one.
  FsError(const char* path, int errnum) : FsError(std::string(path != nullptr ? path : ""), errnum) {}

  const std::string& path() const noexcept { return given(); }  ///< as it was given
  const OsError& osError() const noexcept { return osError_; }  ///< the failure without the path
  int errnum() const noexcept { return osError_.errnum(); }     ///< the errno

  /// The path, ": ", and the text of the error number.
  std::string text() const override;
  void moreWhat() const override;

 private:
  OsError osError_;
};

// The eight conditions that callers catch by type; they differ in nothing else.

/// Nothing can be written there (EROFS).
class ReadOnlyFileSystemError : public Raisable<ReadOnlyFileSystemError, FsError> {
  using Raisable::Raisable;
};
/// A file cannot be renamed to another device (EXDEV).
class NotSameDeviceError : public Raisable<NotSameDeviceError, FsError> {
  using Raisable::Raisable;
};
/// The right to do it is missing (EACCES, EPERM).
class FileAccessError : public Raisable<FileAccessError, FsError> {
  using Raisable::Raisable;
};
/// There is something else than the symbolic link that was to be read (EINVAL).
class NotASymlinkError : public Raisable<NotASymlinkError, FsError> {
  using Raisable::Raisable;
};
/// There is something of that name already (EEXIST).
class FileExistsError : public Raisable<FileExistsError, FsError> {
  using Raisable::Raisable;
};
/// There is a symbolic link where none is followed (ELOOP).
class IsASymlinkError : public Raisable<IsASymlinkError, FsError> {
  using Raisable::Raisable;
};
/// The program in the file runs (ETXTBSY).
class FileBusyError : public Raisable<FileBusyError, FsError> {
  using Raisable::Raisable;
};
/// There is nothing of that name, or no such directory above it (ENOENT, ENOTDIR).
class NoSuchFileError : public Raisable<NoSuchFileError, FsError> {
  using Raisable::Raisable;
};

}  // namespace kes

KES_EXPORT_END
