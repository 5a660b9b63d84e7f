#pragma once  // since 0.1

#include <sys/stat.h>
#include <sys/types.h>

#include "kespal/Export.h"
#include "kespal/fs/Access.h"

KES_EXPORT_BEGIN

namespace kes::fs {

/// The status record of one file, as the system gave it at one moment. A plain value.
class Info {
 public:
  /// An empty record: of no type, everything 0.
  Info() noexcept = default;
  /// What the system has told.
  explicit Info(const struct stat& status) noexcept : status_(status) {}

  /// The status of a named file; without `follow` that of a link itself. ENOENT: NoSuchFileError; anything
  /// else: FsError.
  static Info get(const char* path, bool follow);
  /// The status of an open file. OsError.
  static Info get(const int& fd);

  bool isDir() const noexcept { return S_ISDIR(status_.st_mode); }      ///< a directory
  bool isRegular() const noexcept { return S_ISREG(status_.st_mode); }  ///< a regular file
  bool isLink() const noexcept { return S_ISLNK(status_.st_mode); }     ///< a symbolic link

  /// The twelve permission bits: set-id, sticky, and rwx for owner, group and others.
  unsigned short mode() const noexcept { return static_cast<unsigned short>(status_.st_mode & 07777); }
  unsigned owner() const noexcept { return status_.st_uid; }  ///< user id
  unsigned group() const noexcept { return status_.st_gid; }  ///< group id
  /// Owner, group and permission bits in one.
  Access access() const noexcept { return {owner(), group(), mode()}; }
  /// In bytes; the length of the target for a link.
  off_t size() const noexcept { return status_.st_size; }

  /// The whole record.
  const struct stat& native() const noexcept { return status_; }

 private:
  struct stat status_ {};
};

}  // namespace kes::fs

KES_EXPORT_END
