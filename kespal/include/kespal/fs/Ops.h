#pragma once  // since 0.1

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

#include "kespal/EnumBitset.h"
#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes::fs {

class Access;

/// How a file is moved or copied.
enum class Flags : std::uint32_t {
  COPY_ACCESS = 0x1,  ///< the copy gets the source's permission bits, owner and group; a move always sets it
  NO_FOLLOW = 0x2,    ///< a link as source is not copied: IsASymlinkError
  OVERWRITE = 0x4,    ///< an existing target may be replaced
};
using enum Flags;

/// The set of both flags.
constexpr EnumBitset<Flags> operator|(Flags one, Flags other) noexcept { return {one, other}; }

/// Operations on named files, without state: any thread may call. Paths are NUL-terminated byte strings. A
/// null path is an FsError with the empty path and EFAULT. Every failure is an FsError with the path and
/// errno, or the subclass or other class named at the operation.
class Ops {
 public:
  /// The working directory. OsError (ENOENT when it was removed, ENAMETOOLONG when the name is longer than
  /// the platform's path maximum).
  static std::string cwd();
  static void setCWD(const char* path);  ///< changes it, for all threads
  /// Whether the file exists, or with `follow` what a link leads to. Only ENOENT means it does not.
  static bool exists(const char* path, bool follow);
  /// Reads what a symbolic link holds. ENOENT, ENOTDIR: NoSuchFileError; EINVAL: NotASymlinkError.
  static void readlink(const char* path, std::string& target);
  /// Creates the link `linkPath`, which leads to `target`. EEXIST: FileExistsError. Errors name the link.
  static void symlink(const char* linkPath, const char* target);

  /// Renames. Errors carry the text "from -> to". EXDEV: NotSameDeviceError; EROFS: ReadOnlyFileSystemError.
  /// A target that exists, without OVERWRITE: OsError (EEXIST). That is looked at first, and not in one step
  /// with the renaming: what another process creates in between is replaced, and so is a link that leads
  /// nowhere. A target that cannot be looked at is the FsError of exists().
  static void rawMove(const char* from, const char* to, const EnumBitset<Flags>& flags = {});
  /// Renames. Where the target lies on another device, copies data and rights, and then removes the source.
  /// If the source cannot be removed, the copy is removed again. A failed copy stays as far as it got. Only a
  /// regular file is copied: a directory fails with the error of reading it (OsError, EISDIR), a pipe, socket
  /// or device with FsError (EINVAL), and both stay where they are. A link is followed, and then removed
  /// itself; with NO_FOLLOW it is an IsASymlinkError. A source that is missing, or a link that leads nowhere,
  /// is a NoSuchFileError, but with NO_FOLLOW the rename's FsError. `buffer` of `size` bytes is what to copy
  /// with, 64 KiB of its own without one; UsageError for one without the other, once it comes to copying.
  /// Errors of Info::get(), rawMove(), Copier and remove().
  static void move(const char* from, const char* to, const EnumBitset<Flags>& flags = {},
                   char* buffer = nullptr, std::size_t size = 0);

  /// Removes a name that is no directory. EACCES, EPERM: FileAccessError.
  static void removeFile(const char* path);
  /// Removes an empty directory.
  static void removeDir(const char* path);
  /// Removes either; a link itself, never what it leads to. Errors of Info::get() and the two above.
  static void remove(const char* path);
  /// The same; false when there is nothing to remove, or no longer.
  static bool tryRemove(const std::string& path);
  /// Removes a directory and all below it, depth first. The first error ends it, and what is gone is gone.
  /// WARNING: links to directories are followed. What such a link leads to is emptied, wherever it is, and
  /// then the link itself cannot be removed (FsError, ENOTDIR); a dangling link is a NoSuchFileError. Not
  /// for directories that somebody else can write to: removeAll(), in fs/Tree.h, follows no links. A tree may
  /// be deeper than a path can be long; at most nine descriptors are open at once, and it gets along with
  /// two, or with one where paths are short. Errors of Dir::open(), Info::get(), removeFile() and
  /// removeDir(), each with the path of the entry. A directory that cannot be read on: OsError. One that was
  /// replaced by another meanwhile: FsError (ESTALE).
  static void removeTree(const char* path);

  /// Creates a directory with the permission bits of `access`, 0700 without it, less those of the file
  /// creation mask, and with its owner and group where they are set. EEXIST: FileExistsError; ENOENT:
  /// NoSuchFileError. If the owner cannot be set (FsError), the directory stays.
  static void mkdir(const char* path, const Access* access = nullptr);
  /// Creates a directory and those missing above it, each with `access`. Errors of mkdir(): an existing
  /// directory, also one that somebody else creates meanwhile, is a FileExistsError. Where there is no level
  /// left to try, FsError (ENOENT) with the whole path: for the empty path, and for a null one, too.
  static void makedirs(const char* path, const Access* access = nullptr);
  /// The same; false when a directory of this name exists, links followed.
  static bool tryMakedirs(const char* path, const Access* access = nullptr);
  /// Creates a directory (0700) with a name made as that of a temporary File, and fails as there.
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
  /// The names that match a shell pattern, '~' and '{a,b}' expanded, in the system's order. A directory that
  /// may not be read has none. RuntimeError when the system cannot say, as without memory or descriptors.
  static std::list<std::string> glob(const std::string& pattern);
};

}  // namespace kes::fs

KES_EXPORT_END
