#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kespal/NoCopy.h"
#include "sys/Owner.h"

namespace kes::fs {

/// Which file it is, on whatever path.
using Identity = std::pair<dev_t, ino_t>;
Identity identityOf(const struct stat& status) noexcept;

/// The directories from the top of a tree down to one in it, each entered from the one above by its
/// descriptor, and never by a link: whoever may write to the tree cannot lead a walk out of it. However many
/// there are, few are open at once. One that is opened again has to be the one that was left.
class DirChain : NoCopy {
 public:
  /// `top` is where the first directory will be entered.
  explicit DirChain(std::string top);

  /// Enters a directory by its name in the innermost one, or as the top by its path. False, with errno, where
  /// that fails: ENOTDIR or ELOOP for what is no directory but perhaps a link, ELOOP for one that is in the
  /// chain already.
  bool enter(const char* name);
  /// Goes back to the directory above. One that cannot be reached any more, or is no longer where it was, is
  /// an FsError (ESTALE for the latter), and then the chain is empty and leads nowhere.
  void leave();

  std::size_t depth() const noexcept { return levels_.size(); }
  /// The descriptor of the innermost directory; AT_FDCWD before the top is entered and behind it.
  int fd() const noexcept;
  /// The top's descriptor.
  int topFd() const noexcept { return levels_.front().fd.get(); }
  const Identity& identity() const noexcept { return levels_.back().identity; }
  /// The path of an entry of the innermost directory; where there is none, the top's.
  std::string pathOf(const char* name) const;
  /// The path of the innermost directory, for errors: it may be longer than the system takes.
  const std::string& path() const noexcept { return path_; }
  /// The name of the innermost directory in the one above; for the top, its path.
  const char* name() const noexcept { return path_.c_str() + levels_.back().nameStart; }
  /// How much of path() is the path of the top and the slash behind it.
  std::size_t topLength() const noexcept;

  /// Makes room for one more descriptor, when the process has no more; false when there is none to give.
  bool closeFarthest() noexcept;

 private:
  struct Level {
    sys::Descriptor fd;
    Identity identity;
    std::size_t nameStart;
    std::size_t pathLength;
  };

  int open(const char* name);
  void reopenInnermost(int below);
  sys::Descriptor openFromTop();
  [[noreturn]] void lose(int errnum);

  std::string path_;
  std::vector<Level> levels_;
  std::set<Identity> identities_;
  std::size_t firstOpen_ = 1;  ///< the top is open, and so are this level and all behind it
  bool lost_ = false;
};

/// The names in a directory, with what it says about their types.
class DirListing {
 public:
  /// Reads all of the innermost directory: what a stream shows of changes made meanwhile is the system's
  /// secret. FsError.
  explicit DirListing(DirChain& chain);

  /// Null behind the last one. Valid as long as the listing, wherever that is moved.
  const char* nextName() noexcept;
  /// DT_DIR and the like, of the name that was given last.
  unsigned char type() const noexcept { return type_; }

 private:
  std::vector<char> entries_;  // a character for the type, the name, 0; no string, whose short texts move
  std::size_t next_ = 0;
  unsigned char type_ = DT_UNKNOWN;
};

}  // namespace kes::fs
