#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kesos/files.h"
#include "paths.h"

namespace {

struct CloseDir {
  void operator()(DIR* dir) const { ::closedir(dir); }
};
using DirStream = std::unique_ptr<DIR, CloseDir>;

enum class Type { file, directory, unreachable };

/// What an entry leads to. The directory's own word is taken where there is no link to follow.
Type typeOf(int dir, const dirent& entry) {
  if (entry.d_type == DT_DIR) return Type::directory;
  if (entry.d_type != DT_LNK && entry.d_type != DT_UNKNOWN) return Type::file;
  struct stat state {};
  if (::fstatat(dir, entry.d_name, &state, 0) != 0) return Type::unreachable;
  return S_ISDIR(state.st_mode) ? Type::directory : Type::file;
}

/// Deletes what is in a directory, links followed. All is looked at before anything is deleted: a link must
/// not lose its file half-way, and some file systems skip entries of a directory that changes. One path is
/// kept, and one directory open, at any time.
class TreeDeletion {
 public:
  explicit TreeDeletion(const char* path) : path_(path) {}

  /// Finds out what there is; false when a path does not fit, and then nothing may be deleted.
  bool plan() { return look(content_); }
  void execute() { remove(content_); }

 private:
  struct Directory {
    std::string name;
    std::vector<std::string> files;
    std::vector<Directory> directories;
  };

  bool look(Directory& directory);
  bool list(Directory& directory);
  void remove(const Directory& directory);
  template <typename Action>
  auto below(const std::string& name, Action action);
  bool fits(std::size_t nameLength) const { return path_.size() + 1 + nameLength < kes::kesos::pathSize; }

  std::string path_;
  Directory content_;
  std::set<std::pair<dev_t, ino_t>> seen_;  ///< a second link to a directory leads to nothing new
};

/// Does something while the path is that of an entry.
template <typename Action>
auto TreeDeletion::below(const std::string& name, Action action) {
  const std::size_t length = path_.size();
  path_.append("/").append(name);
  const auto result = action();
  path_.resize(length);
  return result;
}

bool TreeDeletion::look(Directory& directory) {
  if (!list(directory)) return false;
  for (Directory& each : directory.directories) {
    if (!below(each.name, [&] { return look(each); })) return false;
  }
  return true;
}

/// Names the entries, up to the first that cannot be looked at: there a search ends.
bool TreeDeletion::list(Directory& directory) {
  if (!fits(sizeof "*.*" - 1)) return false;  // the search for everything
  const DirStream dir(::opendir(path_.c_str()));
  struct stat state {};
  if (dir == nullptr || ::fstat(::dirfd(dir.get()), &state) != 0) return true;
  if (!seen_.emplace(state.st_dev, state.st_ino).second) return true;
  while (const dirent* entry = ::readdir(dir.get())) {
    std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (!fits(name.size())) return false;
    switch (typeOf(::dirfd(dir.get()), *entry)) {
      case Type::file:
        directory.files.push_back(std::move(name));
        break;
      case Type::directory:
        directory.directories.push_back({std::move(name), {}, {}});
        break;
      case Type::unreachable:
        return true;
    }
  }
  return true;
}

void TreeDeletion::remove(const Directory& directory) {
  for (const std::string& name : directory.files) {
    below(name, [this] { return ::unlink(path_.c_str()); });
  }
  for (const Directory& each : directory.directories) {
    below(each.name, [&] {
      remove(each);
      return ::rmdir(path_.c_str());
    });
  }
}

}  // namespace

int KesOsDeleteDirTree(const char* path) {
  if (path == nullptr) return kes::kesos::failWith(EFAULT);
  if (*path == '\0') return kes::kesos::failWith(ENOENT);
  try {
    TreeDeletion deletion(path);
    if (!deletion.plan()) return kes::kesos::failWith(ENAMETOOLONG);
    deletion.execute();
  } catch (const std::bad_alloc&) {
    return kes::kesos::failWith(ENOMEM);
  }
  return ::rmdir(path) == 0 ? 1 : 0;
}
