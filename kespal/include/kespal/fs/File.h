#pragma once  // since 0.1

#include <cstddef>
#include <string>

#include "kespal/Export.h"
#include "kespal/NoCopy.h"
#include "kespal/fs/Access.h"
#include "kespal/fs/Pipe.h"

KES_EXPORT_BEGIN

namespace kes::fs {

/// The file that swallows what is written and is empty when read.
inline constexpr const char* NULLDEV = "/dev/null";

/// Owns one descriptor, always close-on-exec when opened here. One thread uses an object at a time. An
/// operation that needs a descriptor and has none fails as the system lets it fail: OsError (EBADF).
class File : NoCopy {
 public:
  /// How the descriptor is opened. Any other value opens read only.
  enum Mode : int { READ = 0, WRITE = 1, READ_WRITE = 2 };

  // Newer compilers warn that fs::NO_FOLLOW exists as well, even where this name is always qualified.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
  /// A set of open flags; other bits mean nothing.
  enum Flag : unsigned {
    CREATE = 0x1,     ///< create a missing file
    EXCLUSIVE = 0x2,  ///< create the file, and fail if it exists
    TRUNCATE = 0x4,   ///< empty the file
    NO_FOLLOW = 0x8,  ///< fail if the last component is a symbolic link
  };
#pragma GCC diagnostic pop

  /// Selects the temporary-file form of open().
  struct TempType {};

  File() noexcept = default;
  /// Closes a held descriptor. A failure goes to standard error.
  virtual ~File();

  /// Closes what is held and opens a path. A file created here gets the permission bits of `access`, or
  /// 0600 without it, less those of the file creation mask; its owner and group are not changed. Nothing is
  /// held after a failure. EPERM, EACCES: FileAccessError; ENOENT: NoSuchFileError; ETXTBSY: FileBusyError;
  /// ELOOP with NO_FOLLOW: IsASymlinkError; otherwise, EEXIST and a null path (EFAULT) included, FsError. If
  /// the former file cannot be closed, close()'s OsError, and nothing is opened: so it is for all three
  /// forms. To open one end of a FIFO waits for the other.
  void open(const char* path, const Mode& mode, const unsigned& flags = 0, const Access* access = nullptr);
  /// Closes what is held and creates a file (0600, read and write) named `name` and six generated
  /// characters; a name without '/' lies in the temporary directory. `name` becomes the full name; it is
  /// left alone by a failure, FsError with the name that ends in "XXXXXX".
  void open(const TempType& type, std::string& name);
  /// Closes what is held and takes over one end of a pipe, which is -1 in `pipe` then. UsageError when the
  /// pipe does not hold that end.
  void open(Pipe& pipe, bool readEnd);

  /// Closes the descriptor, if one is held; none is held afterwards, even if OsError says that the close
  /// failed.
  virtual void close();

  /// Changes permission bits, and owner and group where they are set. UsageError when nothing is open;
  /// OsError for the bits, FsError for the owner, with the path that was opened (empty for a pipe).
  void setAccess(const Access& access);
  /// Cuts or extends the file to a length in bytes. OsError.
  void truncate(std::size_t length);

  /// The descriptor, still owned by this object; -1 when none is held.
  int fd() const noexcept { return fd_; }

  /// Two shared files on NULLDEV, opened for reading and for writing; null before init() and after exit().
  /// Both calls belong to the start and the end of the process, while no other thread runs.
  static File* m_null_in;
  static File* m_null_out;  ///< see m_null_in
  /// Opens the shared files; what open() raises.
  static void init();
  /// Destroys the shared files, if there are any.
  static void exit() noexcept;

 private:
  int fd_ = -1;
  std::string path_;  // for errors
};

}  // namespace kes::fs

KES_EXPORT_END
