#pragma once  // since 0.1

#include <dirent.h>

#include <string>

#include "kespal/Export.h"
#include "kespal/NoCopy.h"

KES_EXPORT_BEGIN

namespace kes::fs {

class Info;

/// Walks over the entries of one directory, in the system's order and without "." and "..". Owns the open
/// stream, whose descriptor is closed on exec. One thread at a time. Whatever needs an open directory
/// raises UsageError "No directory is open" without one; what needs a current entry, "No current entry".
class Dir : NoCopy {
 public:
  /// What readdir() says about an entry's type for free; not every file system tells.
  enum class EntryType { Unknown, Directory, Regular, Link, Other };

  Dir() noexcept { init(); }
  explicit Dir(const char* path) : Dir() { open(path); }  ///< open()
  /// Closes; a failure goes to standard error.
  ~Dir();

  /// Forgets the current entry.
  void init() noexcept { entry_ = nullptr; }
  /// Opens a directory, then closes the one that was open; it stays open when the opening fails. ENOENT:
  /// NoSuchFileError; anything else, a null path (EFAULT) included: FsError. If the former one cannot be
  /// closed, close()'s OsError, and none is open then.
  void open(const char* path);
  bool isOpen() const noexcept { return stream_ != nullptr; }  ///< whether a directory is
  /// Closes if open. OsError; the directory counts as closed then, too.
  void close();

  /// Goes to the next entry; false at the end, which a directory removed meanwhile has reached. Entries made
  /// or removed since open() may or may not be seen. OsError for a read error.
  bool nextEntry();
  /// The name of the current entry, without its directory; valid until the next nextEntry() or close().
  const char* entryName() const;
  EntryType entryType() const;  ///< of the current entry
  /// The status of the current entry. Fails as Info::get() does, with the path of the directory as it was
  /// opened, a slash, and the entry's name.
  void entryInfo(Info& info, bool follow) const;
  /// Opens `dir`, which may be this object, on the current entry. Fails as open() does, with the path that
  /// entryInfo() would name.
  void entryDir(Dir& dir) const;
  /// The status of the open directory itself. OsError.
  void dirInfo(Info& info) const;
  /// The descriptor, for calls relative to the directory; -1 when none is open. It stays this object's.
  int fd() const noexcept { return fd_; }

  /// The longest name that an entry can have, in bytes.
  static constexpr unsigned maxEntryLen() noexcept { return 255; }
  /// Whether a directory has no entries besides "." and "..". Errors of open() and nextEntry().
  static bool isEmpty(const char* path);

 private:
  void hold(DIR* stream, std::string&& path) noexcept;
  std::string entryPath() const;

  DIR* stream_ = nullptr;
  int fd_ = -1;
  const dirent* entry_ = nullptr;
  std::string path_;
};

}  // namespace kes::fs

KES_EXPORT_END
