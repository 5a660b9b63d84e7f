#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

#include "kespal/EnumBitset.h"

namespace kes::fs {

class Access;

/// How a file is moved or copied.
enum class Flags : std::uint32_t {
  COPY_ACCESS = 0x1,  ///< the copy gets the source's permission bits, owner and group; a move always sets it
  NO_FOLLOW = 0x2,    ///< a link as source is not copied: IsASymlinkError
  OVERWRITE = 0x4,    ///< an existing target may be replaced
};
using enum Flags;

constexpr EnumBitset<Flags> operator|(Flags one, Flags other) noexcept { return {one, other}; }

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
  /// Creates the link `linkPath`, which leads to `target`. EEXIST: FileExistsError. Errors name the link.
  static void symlink(const char* linkPath, const char* target);

  /// Renames. Errors carry the text "from -> to". A target that exists, without OVERWRITE: OsError (EEXIST);
  /// EXDEV: NotSameDeviceError; EROFS: ReadOnlyFileSystemError.
  static void rawMove(const char* from, const char* to, const EnumBitset<Flags>& flags = {});
  /// Renames, or across devices copies data and rights and then removes the source; if the source cannot be
  /// removed, the copy is removed again. A failed copy stays as far as it got. Copies one file: a directory
  /// fails with the read error (OsError, EISDIR) and stays where it is. `buffer` of `size` bytes is what to
  /// copy with; UsageError for one without the other. Errors of rawMove(), Copier and remove().
  static void move(const char* from, const char* to, const EnumBitset<Flags>& flags = {},
                   char* buffer = nullptr, std::size_t size = 0);

  /// Removes a name that is no directory. EACCES, EPERM: FileAccessError.
  static void removeFile(const char* path);
  /// Removes an empty directory.
  static void removeDir(const char* path);
  /// Removes either; a link itself, never what it leads to. Errors of Info::get() and the two above.
  static void remove(const char* path);
  /// The same; false when there is nothing to remove.
  static bool tryRemove(const std::string& path);
  /// Removes a directory and all below it, depth first; the first error ends it, and what is gone is gone.
  /// WARNING: links to directories are followed. What such a link leads to is emptied, wherever it is, and
  /// then the link itself cannot be removed (FsError, ENOTDIR); a dangling link is a NoSuchFileError. Not
  /// for directories that somebody else can write to.
  static void removeTree(const char* path);

  /// Creates a directory with the permission bits of `access`, 0700 without it, and with its owner and group
  /// where they are set. EEXIST: FileExistsError; ENOENT: NoSuchFileError.
  static void mkdir(const char* path, const Access* access = nullptr);
  /// Creates a directory and those missing above it, each with `access`. Errors of mkdir(): an existing
  /// directory, also one that somebody else creates meanwhile, is a FileExistsError.
  static void makedirs(const char* path, const Access* access = nullptr);
  /// The same; false when the directory exists.
  static bool tryMakedirs(const char* path, const Access* access = nullptr);
  /// Creates a directory (0700) named `name` and six generated characters; a name without '/' lies in the
  /// temporary directory. `name` becomes the full name; it is left alone by a failure, FsError with the name
  /// that ends in "XXXXXX".
  static void tempdir(std::string& name);
  /// Creates a named pipe with the permission bits of `access`.
  static void makeFifo(const std::string& path, const Access& access);

  /// Changes permission bits, links followed, and owner and group where they are set. By descriptor,
  /// OsError for the bits and FsError for the owner.
  static void setAccess(const char* path, const Access& access);
  static void setAccess(int fd, const Access& access);
  /// By path, or by descriptor if `path` is null.
  static void setAccessPriv(const char* path, int fd, const Access& access);

  /// The first regular file named `program` in the directories of $PATH that the effective user may execute,
  /// or the directory it is in; empty when there is none. An absolute name is only tested. Simple rule:
  /// supplementary groups do not count, and root is a user like any other. Raises nothing.
  static std::string which(const char* program, bool dirOnly = false);
  /// The names that match a shell pattern, '~' and '{a,b}' expanded, in the system's order. RuntimeError
  /// when the system cannot say.
  static std::list<std::string> glob(const std::string& pattern);
};

}  // namespace kes::fs
