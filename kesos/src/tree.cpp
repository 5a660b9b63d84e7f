#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kesos/files.h"
#include "paths.h"
#include "sys/Owner.h"

namespace {

using kes::sys::DirStream;
using FileId = std::pair<dev_t, ino_t>;

enum class Type { file, directory, unreachable };

/// Deletes what is in a directory, links followed, in two walks. The first looks at everything and deletes
/// nothing: a path may not fit, and a link must not lose its file before somebody asked where it leads. The
/// second takes the entries of a directory together, before any of them goes, since some file systems skip
/// entries of a directory that changes. A walk keeps the way from the top, and one directory open at most.
class TreeDeletion {
 public:
  explicit TreeDeletion(const char* path) : path_(path) {}

  /// Both are false when a path does not fit. Nothing has been deleted if the first one is.
  bool look() { return walk(); }
  bool remove() {
    removing_ = true;
    return walk();
  }

 private:
  /// A directory on the way from the top.
  struct Step {
    std::size_t pathLength;            ///< of its parent's path
    std::vector<std::string> waiting;  ///< directories in it that were not entered yet
  };

  bool walk();
  bool enter(const std::string& below);
  bool list(DIR* dir, FileId id, std::vector<std::string>& files);
  void leave();
  Type typeOf(int dir, FileId id, const dirent& entry);
  bool fits(std::size_t nameLength) const { return path_.size() + 1 + nameLength < kes::kesos::pathSize; }

  std::string path_;
  std::vector<Step> way_;
  bool removing_ = false;
  std::set<FileId> entered_;  ///< a second link to a directory leads to nothing new
  /// Directory and name of the links that did not lead to a file on the first walk.
  std::map<std::pair<FileId, std::string>, Type> followed_;
};

bool TreeDeletion::walk() {
  entered_.clear();
  if (!enter("")) return false;
  while (!way_.empty()) {
    std::vector<std::string>& waiting = way_.back().waiting;
    if (waiting.empty()) {
      leave();
      continue;
    }
    const std::string name = std::move(waiting.back());
    waiting.pop_back();
    if (!enter('/' + name)) return false;
  }
  return true;
}

/// Goes down, on the second walk with the files of the directory removed. One that is empty by then, cannot
/// be opened, or was entered by another way, has nothing in it.
bool TreeDeletion::enter(const std::string& below) {
  way_.push_back({path_.size(), {}});
  path_ += below;
  if (!fits(sizeof "*.*" - 1)) return false;  // the search for everything
  if (removing_ && way_.size() > 1 && ::rmdir(path_.c_str()) == 0) return true;
  const DirStream dir(::opendir(path_.c_str()));
  struct stat state {};
  if (!dir || ::fstat(::dirfd(dir.get()), &state) != 0) return true;
  const FileId id{state.st_dev, state.st_ino};
  if (!entered_.insert(id).second) return true;
  std::vector<std::string> files;
  if (!list(dir.get(), id, files)) return false;
  for (const std::string& name : files) ::unlinkat(::dirfd(dir.get()), name.c_str(), 0);
  return true;
}

/// Names the entries, up to the first that cannot be looked at: there a search ends. The first walk has no
/// use for the files.
bool TreeDeletion::list(DIR* dir, FileId id, std::vector<std::string>& files) {
  while (const dirent* entry = ::readdir(dir)) {
    std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (!fits(name.size())) return false;
    switch (typeOf(::dirfd(dir), id, *entry)) {
      case Type::file:
        if (removing_) files.push_back(std::move(name));
        break;
      case Type::directory:
        way_.back().waiting.push_back(std::move(name));
        break;
      case Type::unreachable:
        return true;
    }
  }
  return true;
}

/// What an entry leads to. The directory's own word is taken where there is no link to follow, and the first
/// walk's where there is one: what the link led to may have been deleted since.
Type TreeDeletion::typeOf(int dir, FileId id, const dirent& entry) {
  if (entry.d_type == DT_DIR) return Type::directory;
  if (entry.d_type != DT_LNK && entry.d_type != DT_UNKNOWN) return Type::file;
  if (removing_) {
    const auto seen = followed_.find({id, entry.d_name});
    return seen != followed_.end() ? seen->second : Type::file;
  }
  struct stat state {};
  Type type = Type::unreachable;
  if (::fstatat(dir, entry.d_name, &state, 0) == 0) {
    type = S_ISDIR(state.st_mode) ? Type::directory : Type::file;
  }
  if (type != Type::file) followed_.insert({{id, entry.d_name}, type});
  return type;
}

/// Goes up again, on the second walk with the directory removed; the top is left to the caller.
void TreeDeletion::leave() {
  const std::size_t parent = way_.back().pathLength;
  way_.pop_back();
  if (removing_ && !way_.empty()) ::rmdir(path_.c_str());
  path_.resize(parent);
}

}  // namespace

int KesOsDeleteDirTree(const char* path) {
  if (path == nullptr) return kes::kesos::failWith(EFAULT);
  if (*path == '\0') return kes::kesos::failWith(ENOENT);
  try {
    TreeDeletion deletion(path);
    if (!deletion.look() || !deletion.remove()) return kes::kesos::failWith(ENAMETOOLONG);
  } catch (const std::exception&) {
    return kes::kesos::failWith(ENOMEM);
  }
  return ::rmdir(path) == 0 ? 1 : 0;
}
