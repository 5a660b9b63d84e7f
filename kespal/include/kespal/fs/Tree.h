#pragma once  // since 0.1

#include <cstdint>
#include <memory>
#include <string>

#include "kespal/Export.h"
#include "kespal/NoCopy.h"
#include "kespal/fs/Dir.h"
#include "kespal/fs/Info.h"

KES_EXPORT_BEGIN

namespace kes::fs {

class KES_HIDDEN DirChain;

/// Walks over all entries of a directory and of those below it, each directory before what is in it, in the
/// system's order. Links are shown, never followed, below the top and as the top. A directory that is mounted
/// or linked into itself is shown, and not entered again, so every walk ends.
///
/// It goes by descriptors, so that a tree may be deeper than a path can be long, and whoever may write to the
/// tree cannot lead the walk out of it. At most ten are open at once, and three are enough. Each directory
/// is read when it is entered, and kept in memory until it is left. One thread at a time.
///
/// What is asked about the current entry is a UsageError "No current entry" without one.
class TreeWalk : NoCopy {
 public:
  /// Opens the top. ENOENT: NoSuchFileError; anything else, ENOTDIR for what is no directory and a null path
  /// (EFAULT) included: FsError.
  explicit TreeWalk(const char* path);
  ~TreeWalk();

  /// Goes to the next entry; false at the end. A directory that cannot be entered is an FsError with its
  /// path, and the walk goes on behind it at the next call; one that is gone is none. If the way back up is
  /// lost, because a directory was moved meanwhile (FsError, ESTALE), the walk is at its end.
  bool nextEntry();
  /// Does not enter the current entry.
  void skip() noexcept { mayEnter_ = false; }

  // What follows is about the current entry.

  /// Its path, which begins with the top's as it was given, less slashes at its end. It may be longer than
  /// the system takes.
  const std::string& path() const;
  /// Its path from the top on.
  const char* relativePath() const;
  /// In how many directories below the top it is: 0 in the top itself.
  std::size_t depth() const;
  /// As the directory says, or else as a look at the entry does: Unknown only for one that is gone.
  Dir::EntryType entryType() const;
  /// The status of the entry, of a link itself. ENOENT: NoSuchFileError; anything else: FsError.
  Info entryInfo() const;
  /// The descriptor of the directory that it is in, and its name there, for calls such as openat(). The
  /// descriptor stays the walk's; both are good until the next nextEntry().
  int directory() const;
  const char* entryName() const;  ///< see directory()

 private:
  class KES_HIDDEN State;

  void needEntry() const;

  std::unique_ptr<State> state_;
  bool mayEnter_ = false;
};

/// Removes what is at a path, and if it is a directory, all below it, depth first. Returns how many entries
/// were removed: 0 when there was nothing. Links are removed and never followed: nothing outside of the tree
/// is touched, even if somebody else writes to the tree meanwhile, puts links in the place of directories or
/// moves these about. Only what stands above the last component of `path` has to be the caller's own.
///
/// Deep trees and descriptors: as TreeWalk. The first error ends it, and what is gone is gone; what somebody
/// else removes first is none. No right to remove an entry: FileAccessError (EACCES, EPERM). A directory that
/// somebody fills meanwhile: FsError (ENOTEMPTY). One that was moved meanwhile: FsError (ESTALE). Anything
/// else: FsError with the path of the entry. For "/", and for a path that ends in "." or "..", FsError
/// (EINVAL), and nothing is removed. Any thread may call.
std::uintmax_t removeAll(const char* path);

}  // namespace kes::fs

KES_EXPORT_END
