#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <vector>

#include "kespal/fs/Tree.h"
#include "os/posix/fs/At.h"
#include "os/posix/fs/DirChain.h"
#include "os/posix/fs/Errors.h"

namespace kes::fs {

namespace {

using EnterErrors = Errors<FsError, Raise<FileAccessError, EACCES, EPERM>>;

/// What the system would refuse to remove in the end, when all in it is gone.
bool isRefused(std::string_view path) {
  const std::size_t last = path.find_last_not_of('/');
  if (last == path.npos) return !path.empty();
  path = path.substr(0, last + 1);
  path.remove_prefix(path.find_last_of('/') + 1);  // npos + 1 is 0
  return path == "." || path == "..";
}

/// One removal. Whatever the entry's type was said to be, nothing but the system's answer counts: a file is
/// removed as one, and only what can be entered without following a link is emptied.
class Removal {
 public:
  explicit Removal(const char* path) : chain_(path) {}

  std::uintmax_t run() {
    remove(chain_.path().c_str(), DT_UNKNOWN);
    while (!listings_.empty()) {
      if (const char* name = listings_.back().nextName()) {
        remove(name, listings_.back().type());
      } else {
        leave();
      }
    }
    return removed_;
  }

 private:
  /// Removes an entry of the innermost directory, or enters it to empty it first.
  void remove(const char* name, unsigned char type) {
    // A directory is refused here, with one of several error numbers.
    if (type != DT_DIR && unlinked(name, 0)) return;
    if (chain_.enter(name)) {
      listings_.emplace_back(chain_);
      return;
    }
    const int errnum = errno;
    if (errnum == ENOENT) return;
    if (errnum == EACCES && unlinked(name, AT_REMOVEDIR)) return;  // closed to us, but empty
    if (errnum != ENOTDIR && errnum != ELOOP) EnterErrors::raise(KES_HERE, errnum, chain_.pathOf(name));
    if (!unlinked(name, 0)) EnterErrors::raise(KES_HERE, errno, chain_.pathOf(name));
  }

  void leave() {
    listings_.pop_back();
    const std::string name = chain_.name(), path = chain_.path();
    chain_.leave();
    if (!unlinked(name.c_str(), AT_REMOVEDIR)) EnterErrors::raise(KES_HERE, errno, path);
  }

  /// Whether there is no such entry any more.
  bool unlinked(const char* name, int flags) {
    if (::unlinkat(chain_.fd(), name, flags) == 0) {
      ++removed_;
      return true;
    }
    return errno == ENOENT;
  }

  DirChain chain_;
  std::vector<DirListing> listings_;
  std::uintmax_t removed_ = 0;
};

}  // namespace

std::uintmax_t removeAll(const char* path) {
  if (path == nullptr) raiseAt(KES_HERE, FsError(path, EFAULT));
  if (isRefused(path)) raiseAt(KES_HERE, FsError(path, EINVAL));
  return Removal(path).run();
}

}  // namespace kes::fs
