#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "kespal/error/StaticError.h"
#include "kespal/fs/Tree.h"
#include "kespal/os/thread/Native.h"
#include "os/posix/fs/At.h"
#include "os/posix/fs/DirChain.h"
#include "os/posix/fs/Errors.h"

namespace kes::fs {

/// The chain of directories, what is left to see in each, and the entry that is seen now.
class TreeWalk::State {
 public:
  explicit State(const char* path) : chain_(path) {
    if (!chain_.enter(path)) StatusErrors::raise(KES_HERE, errno, chain_.path());
    list();
  }

  bool isAtEntry() const { return name_ != nullptr; }
  const std::string& path() const { return path_; }
  const char* relativePath() const { return path_.c_str() + chain_.topLength(); }
  std::size_t depth() const { return chain_.depth() - 1; }
  int directory() const { return chain_.fd(); }
  const char* name() const { return name_; }

  unsigned char type() const {
    if (type_ != DT_UNKNOWN) return type_;
    struct stat status;
    const int result = ::fstatat(directory(), name_, &status, AT_SYMLINK_NOFOLLOW);
    return result == 0 ? static_cast<unsigned char>(IFTODT(status.st_mode))
                       : static_cast<unsigned char>(DT_UNKNOWN);
  }

  /// Enters the current entry if it is a directory.
  void enter() {
    const char* const name = std::exchange(name_, nullptr);
    if (type_ != DT_DIR && type_ != DT_UNKNOWN) return;
    if (chain_.enter(name)) return list();
    const bool isNone = errno == ENOTDIR || errno == ELOOP || errno == ENOENT;
    if (!isNone) PathErrors::raise(KES_HERE, errno, path_);
  }

  /// False at the end.
  bool advance() {
    name_ = nullptr;
    while (!listings_.empty()) {
      if (const char* name = listings_.back().nextName()) {
        path_ = chain_.pathOf(name);
        type_ = listings_.back().type();
        name_ = name;
        return true;
      }
      leave();
    }
    return false;
  }

 private:
  void list() {
    try {
      listings_.emplace_back(chain_);
    } catch (...) {
      if (os::isForcedUnwind()) throw;
      leaveChain();
      throw;
    }
  }

  void leave() {
    listings_.pop_back();
    leaveChain();
  }

  void leaveChain() {
    try {
      chain_.leave();
    } catch (const Exception&) {
      listings_.clear();
      throw;
    }
  }

  DirChain chain_;
  std::vector<DirListing> listings_;
  std::string path_;
  const char* name_ = nullptr;
  unsigned char type_ = DT_UNKNOWN;
};

TreeWalk::TreeWalk(const char* path) {
  if (path == nullptr) PathErrors::raise(KES_HERE, EFAULT, path);
  state_ = std::make_unique<State>(path);
}

TreeWalk::~TreeWalk() = default;

bool TreeWalk::nextEntry() {
  if (std::exchange(mayEnter_, false) && state_->isAtEntry()) state_->enter();
  return mayEnter_ = state_->advance();
}

void TreeWalk::needEntry() const {
  if (!state_->isAtEntry()) raiseAt(KES_HERE, UsageError("No current entry"));
}

const std::string& TreeWalk::path() const {
  needEntry();
  return state_->path();
}

const char* TreeWalk::relativePath() const {
  needEntry();
  return state_->relativePath();
}

std::size_t TreeWalk::depth() const {
  needEntry();
  return state_->depth();
}

Dir::EntryType TreeWalk::entryType() const {
  needEntry();
  return at::typeOf(state_->type());
}

Info TreeWalk::entryInfo() const {
  needEntry();
  return at::get(state_->directory(), state_->name(), state_->path(), /*follow=*/false);
}

int TreeWalk::directory() const {
  needEntry();
  return state_->directory();
}

const char* TreeWalk::entryName() const {
  needEntry();
  return state_->name();
}

}  // namespace kes::fs
