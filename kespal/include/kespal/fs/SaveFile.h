#pragma once  // since 0.1

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "kespal/Export.h"
#include "kespal/NoCopy.h"
#include "kespal/fs/Access.h"

KES_EXPORT_BEGIN

namespace kes::fs {

/// Writes a file that takes the place of another one in a single step: whoever opens the path finds the old
/// content or the new one, whole, also after a power failure. The new content goes into a temporary file in
/// the same directory, ".NAME." and eight generated characters, which is removed by whatever does not reach
/// the end of commit(). Only a process that is killed, or a thread that is cancelled on macOS, leaves it.
///
/// A link is followed: what it leads to is replaced, and the link stays. Whoever else may write to the
/// directory can put links there, so it should be the caller's own. Several savers of one path do not
/// disturb each other: the last commit() stays. One thread uses an object at a time. A forked child that
/// inherits one leaves the file to its parent: commit() is a UsageError there, and the end removes nothing.
class SaveFile : NoCopy {
 public:
  /// Makes the temporary file, which is the caller's alone until commit(). Then it has the permission bits,
  /// owner and group of the file that it replaces; an access control list and extended attributes are not
  /// taken over. Where there is none to be replaced, it has 0600. `access`, if not null, decides instead,
  /// whatever the file creation mask is; an unset owner or group is the caller's.
  /// What cannot be replaced is refused: a directory (FsError, EISDIR), and what is neither file nor
  /// directory (FsError, EINVAL). A missing directory, and a link that leads nowhere: NoSuchFileError.
  /// No right to the directory, or to give the file to its owner: FileAccessError. Anything else, a null path
  /// (EFAULT) included: FsError. Each names `path`.
  explicit SaveFile(const char* path, const Access* access = nullptr);
  /// Gives up what was not committed.
  ~SaveFile();

  /// Writes all of `size` bytes behind what was written before. FsError; a disk that is full is an error
  /// here, or at the latest in commit(). UsageError after commit() or cancel().
  void write(const void* data, std::size_t size);
  /// The descriptor, for what write() cannot do; -1 after commit() and cancel(). It stays this object's.
  int fd() const noexcept { return fd_; }

  /// Brings the file to the device, renames it, and brings its directory to the device. Blocks as long as the
  /// device takes. FsError with `path`: nothing is replaced then, and the temporary file is gone. If only the
  /// directory cannot be brought to the device, the file is replaced already, but a power failure may
  /// take that back. UsageError when there is nothing to commit.
  void commit();
  /// Gives up: what was there stays. Nothing to do after commit().
  void cancel() noexcept;

 private:
  void lookUp(const char* path);
  void chooseRights(const Access* access);
  void makeTemporary();
  bool isOwners() const noexcept;

  std::string path_;  // for errors
  std::string name_;  // in the directory
  std::string temporary_;
  Access rights_;
  int directory_ = -1;
  int fd_ = -1;
  pid_t owner_;
};

}  // namespace kes::fs

KES_EXPORT_END
