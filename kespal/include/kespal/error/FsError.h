#pragma once  // since 0.1

#include <string>

#include "kespal/error/DynError.h"
#include "kespal/error/OsError.h"

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

/// The eight conditions that callers catch by type; they differ in nothing else.
class ReadOnlyFileSystemError : public Raisable<ReadOnlyFileSystemError, FsError> {
  using Raisable::Raisable;
};
class NotSameDeviceError : public Raisable<NotSameDeviceError, FsError> {
  using Raisable::Raisable;
};
class FileAccessError : public Raisable<FileAccessError, FsError> {
  using Raisable::Raisable;
};
class NotASymlinkError : public Raisable<NotASymlinkError, FsError> {
  using Raisable::Raisable;
};
class FileExistsError : public Raisable<FileExistsError, FsError> {
  using Raisable::Raisable;
};
class IsASymlinkError : public Raisable<IsASymlinkError, FsError> {
  using Raisable::Raisable;
};
class FileBusyError : public Raisable<FileBusyError, FsError> {
  using Raisable::Raisable;
};
class NoSuchFileError : public Raisable<NoSuchFileError, FsError> {
  using Raisable::Raisable;
};

}  // namespace kes
