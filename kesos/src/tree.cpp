#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "kesos/files.h"
#include "names.h"

namespace {

using kes::kesos::pathSize;

struct CloseDir {
  void operator()(DIR* dir) const { ::closedir(dir); }
};
using DirStream = std::unique_ptr<DIR, CloseDir>;

enum class Type { file, directory, unreachable };

struct Entry {
  std::string name;
  unsigned char kind;  ///< as the directory gave it
};

/// Deletes what is in directories, links followed. The path being worked on is kept in one text.
class TreeDeletion {
 public:
  explicit TreeDeletion(const char* path) : path_(path) {}

  /// Deletes the content of the directory at the path.
  /// @return false when a name did not fit, so that something must stay
  bool empty();

 private:
  static std::vector<Entry> list(DIR* dir);
  static Type typeOf(int dir, const Entry& entry);
  bool fits(const std::string& name) const { return path_.size() + 1 + name.size() < pathSize; }
  bool removeFiles(DIR* dir, std::vector<std::string>& directories) const;
  bool removeDirectory(const std::string& name);

  std::string path_;
  // The directories above, themselves included: a link that leads back to one of them needs no second visit.
  std::vector<std::pair<dev_t, ino_t>> open_;
};

// Collected before anything is deleted: some file systems skip entries of a directory that changes.
std::vector<Entry> TreeDeletion::list(DIR* dir) {
  std::vector<Entry> entries;
  while (const dirent* entry = ::readdir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") entries.push_back({std::move(name), entry->d_type});
  }
  return entries;
}

Type TreeDeletion::typeOf(int dir, const Entry& entry) {
  if (entry.kind == DT_DIR) return Type::directory;
  if (entry.kind != DT_LNK && entry.kind != DT_UNKNOWN) return Type::file;
  struct stat state {};
  if (::fstatat(dir, entry.name.c_str(), &state, 0) != 0) return Type::unreachable;
  return S_ISDIR(state.st_mode) ? Type::directory : Type::file;
}

/// Deletes the files and names the directories, in the directory's order, up to the first entry that cannot
/// be looked at: there a search ends.
bool TreeDeletion::removeFiles(DIR* dir, std::vector<std::string>& directories) const {
  for (Entry& entry : list(dir)) {
    if (!fits(entry.name)) return false;
    switch (typeOf(::dirfd(dir), entry)) {
      case Type::file:
        ::unlinkat(::dirfd(dir), entry.name.c_str(), 0);
        break;
      case Type::directory:
        directories.push_back(std::move(entry.name));
        break;
      case Type::unreachable:
        return true;
    }
  }
  return true;
}

bool TreeDeletion::removeDirectory(const std::string& name) {
  const std::size_t length = path_.size();
  path_.append("/").append(name);
  const bool emptied = empty();
  ::rmdir(path_.c_str());
  path_.resize(length);
  return emptied;
}

bool TreeDeletion::empty() {
  if (!fits("*.*")) return false;  // the search for everything
  std::vector<std::string> directories;
  {
    const DirStream dir(::opendir(path_.c_str()));
    struct stat state {};
    if (dir == nullptr || ::fstat(::dirfd(dir.get()), &state) != 0) return true;
    const std::pair self(state.st_dev, state.st_ino);
    if (std::find(open_.begin(), open_.end(), self) != open_.end()) return true;
    open_.push_back(self);
    if (!removeFiles(dir.get(), directories)) {
      open_.pop_back();
      return false;
    }
  }  // closed before the descent: its depth costs no descriptors
  bool emptied = true;
  for (const std::string& name : directories) emptied &= removeDirectory(name);
  open_.pop_back();
  return emptied;
}

}  // namespace

int KesOsDeleteDirTree(const char* path) {
  if (path == nullptr) return kes::kesos::failWith(EFAULT);
  if (*path == '\0') return kes::kesos::failWith(ENOENT);
  try {
    if (!TreeDeletion(path).empty()) return kes::kesos::failWith(ENAMETOOLONG);
  } catch (const std::bad_alloc&) {
    return kes::kesos::failWith(ENOMEM);
  }
  return ::rmdir(path) == 0 ? 1 : 0;
}
