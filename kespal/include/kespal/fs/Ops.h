#pragma once

#include <string>

namespace kes::fs {

/// Operations on named files, without state: any thread may call. Paths are NUL-terminated byte strings; a
/// null path counts as the empty one with EFAULT. Every failure is an FsError with the path and errno, or
/// the subclass named at the operation.
class Ops {
 public:
  /// The working directory. OsError (ENOENT when it was removed, ENAMETOOLONG when the name is longer than
  /// the platform's path maximum).
  static std::string cwd();
  static void setCWD(const char* path);
  /// Whether the file exists, or with `follow` what a link leads to. Only ENOENT means it does not.
  static bool exists(const char* path, bool follow);
  /// Reads what a symbolic link holds. ENOENT, ENOTDIR: NoSuchFileError; EINVAL: NotASymlinkError.
  static void readlink(const char* path, std::string& target);
};

}  // namespace kes::fs
