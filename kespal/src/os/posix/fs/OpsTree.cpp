#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "kespal/error/FsError.h"
#include "kespal/fs/Dir.h"
#include "kespal/fs/Info.h"
#include "kespal/fs/Ops.h"
#include "kespal/fs/Path.h"

namespace kes::fs {

namespace {

/// The entries of a directory as one text: for each a character for its type, its name and a NUL. Read to
/// the end before the first one is removed: what a walk sees of removals on its way is the system's secret.
std::string entriesOf(Dir& dir) {
  std::string entries;
  while (dir.nextEntry()) {
    entries += static_cast<char>(dir.entryType());
    entries.append(dir.entryName()).push_back('\0');
  }
  return entries;
}

/// One walk through a tree. The type that comes with a name saves the look at the entry. Where it does not
/// say enough, as for links, or where an entry does not go that way, the entry is looked at by its path, so
/// that errors are those of a plain walk by paths.
class TreeRemoval {
 public:
  explicit TreeRemoval(const char* path) : path_(path) {}

  void run() {
    Dir dir(path_.c_str());
    removeAll(dir);
  }

 private:
  void removeAll(Dir& dir) {
    const std::string entries = entriesOf(dir);
    const char* const end = entries.data() + entries.size();
    for (const char* entry = entries.data(); entry != end; entry += std::strlen(entry + 1) + 2) {
      const auto type = static_cast<Dir::EntryType>(*entry);
      if (!removedByType(dir, type, entry + 1)) removeByPath(dir, type, entry + 1);
    }
    Ops::removeDir(path_.c_str());
  }

  static bool removedByType(const Dir& dir, Dir::EntryType type, const char* name) {
    const bool isPlain = type == Dir::EntryType::Regular || type == Dir::EntryType::Other;
    return isPlain && dir.isOpen() && ::unlinkat(dir.fd(), name, 0) == 0;
  }

  void removeByPath(Dir& above, Dir::EntryType type, const char* name) {
    const std::size_t length = path_.size();
    path_.append(1, '/').append(name);
    Dir dir;
    const bool opened = type == Dir::EntryType::Directory && opens(dir, above);
    if (opened || Info::get(path_.c_str(), /*follow=*/true).isDir()) {
      if (!opened) open(dir, above);
      removeAll(dir);
    } else {
      Ops::removeFile(path_.c_str());
    }
    path_.resize(length);
  }

  bool opens(Dir& dir, Dir& above) const {
    try {
      open(dir, above);
      return true;
    } catch (const FsError&) {
      return false;
    }
  }

  /// Every level of a deep tree holds a descriptor; when there are no more, the one above gives its own up.
  void open(Dir& dir, Dir& above) const {
    try {
      dir.open(path_.c_str());
    } catch (const FsError& error) {
      if (error.osError().errnum() != EMFILE || !above.isOpen()) throw;
      above.close();
      dir.open(path_.c_str());
    }
  }

  std::string path_;
};

}  // namespace

void Ops::removeTree(const char* path) {
  if (path == nullptr) raiseAt(KES_HERE, FsError(path, EFAULT));
  TreeRemoval(path).run();
}

namespace {

/// False when the directory above is missing.
bool madeDir(const std::string& path, const Access* access) {
  try {
    Ops::mkdir(path.c_str(), access);
    return true;
  } catch (const NoSuchFileError&) {
    return false;
  }
}

/// Cuts at the last '/'; several in a row are one, or a directory would be made twice. npos without any.
std::size_t cutAtSlash(const std::string& text, std::size_t length) {
  const std::size_t slash = text.find_last_of('/', length - 1);
  return length == 0 || slash == std::string::npos ? std::string::npos
                                                   : text.find_last_not_of('/', slash) + 1;
}

bool isDirectory(const char* path) {
  try {
    return Info::get(path, /*follow=*/true).isDir();
  } catch (const FsError&) {
    return false;
  }
}

}  // namespace

void Ops::makedirs(const char* path, const Access* access) {
  const Path whole(path);
  std::vector<std::size_t> lengths = {whole.size()};
  while (!madeDir(whole.substr(0, lengths.back()), access)) {
    const std::size_t shorter = cutAtSlash(whole, lengths.back());
    if (shorter == Path::npos) raiseAt(KES_HERE, FsError(path, ENOENT));
    lengths.push_back(shorter);
  }
  for (lengths.pop_back(); !lengths.empty(); lengths.pop_back()) {
    mkdir(whole.substr(0, lengths.back()).c_str(), access);
  }
}

bool Ops::tryMakedirs(const char* path, const Access* access) {
  try {
    makedirs(path, access);
    return true;
  } catch (const FileExistsError&) {
    if (!isDirectory(path)) throw;
    return false;
  }
}

}  // namespace kes::fs
