#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "kesos/files.h"
#include "kesos/strings.h"
#include "paths.h"
#include "sys/KeepErrno.h"

using kes::kesos::failWith;
using kes::kesos::pathSize;

namespace {

bool isDot(std::string_view name) { return name == "." || name == ".."; }

bool matches(std::string_view name, std::string_view pattern) {
  if (pattern == "*.*" || pattern == "*." || pattern == "*") return !isDot(name);
  const std::size_t star = pattern.find('*');
  if (star == std::string_view::npos) return name == pattern;
  return name.size() + 1 >= pattern.size() && name.starts_with(pattern.substr(0, star)) &&
         name.ends_with(pattern.substr(star + 1));
}

const dirent* nextMatch(KesOsFind& find) {
  const std::string_view pattern(find.pattern);
  const dirent* entry = ::readdir(find.dir);
  while (entry != nullptr && !matches(entry->d_name, pattern)) entry = ::readdir(find.dir);
  return entry;
}

/// A directory's own path, with a slash behind it, and the pattern for all its entries.
bool takeDirectory(KesOsFind& find, const char* path) {
  const std::string_view whole(path);
  const char* slash = whole.ends_with('/') ? "" : "/";
  if (sprintf_kes(find.path, pathSize, "%s%s", path, slash) >= static_cast<int>(pathSize)) {
    return failWith(ENAMETOOLONG) != 0;
  }
  strcpy_kes(find.pattern, pathSize, "*");
  return true;
}

/// Finds out where to search, and for what.
bool takePattern(KesOsFind& find, const char* pattern) {
  if (std::string_view(pattern).size() >= pathSize) return failWith(ENAMETOOLONG) != 0;
  if (std::strchr(pattern, '*') == nullptr) {
    if (KesOsIsDir(pattern) != 0) return takeDirectory(find, pattern);
    if (KesOsFileExists(pattern) == 0) return false;
  }
  vSplitFileName(pattern, find.path, find.pattern);
  return true;
}

}  // namespace

int KesOsFindFirst(KesOsFind* find, const char* pattern, char* name, unsigned int* type, time_t* modifyTime,
                   off_t* size) {
  if (find == nullptr) return failWith(EFAULT);
  find->dir = nullptr;
  if (pattern == nullptr || name == nullptr) return failWith(EFAULT);
  if (!takePattern(*find, pattern)) return 0;
  // Of a name in the root directory nothing precedes the slash.
  find->dir = ::opendir(find->path[0] != '\0' ? find->path : "/");
  if (find->dir == nullptr) return 0;
  if (KesOsFindNext(find, name, type, modifyTime, size) != 0) return 1;
  const kes::sys::KeepErrno whyNothing;
  KesOsFindClose(find);
  return 0;
}

int KesOsFindNext(KesOsFind* find, char* name, unsigned int* type, time_t* modifyTime, off_t* size) {
  if (find == nullptr || find->dir == nullptr || name == nullptr) return failWith(EFAULT);
  const dirent* entry = nextMatch(*find);
  if (entry == nullptr) return 0;
  strcpy_kes(name, pathSize, entry->d_name);
  struct stat state {};
  if (::fstatat(::dirfd(find->dir), name, &state, 0) != 0) return 0;
  if (type != nullptr) *type = S_ISDIR(state.st_mode) ? KESOS_TYPE_DIRECTORY : KESOS_TYPE_FILE;
  if (modifyTime != nullptr) *modifyTime = state.st_mtime;
  if (size != nullptr) *size = state.st_size;
  return 1;
}

int KesOsFindClose(KesOsFind* find) {
  if (find == nullptr) return failWith(EFAULT);
  if (find->dir == nullptr) return 1;
  DIR* const dir = std::exchange(find->dir, nullptr);
  return ::closedir(dir) == 0 ? 1 : 0;
}

void vSplitFileName(const char* path, char* dir, char* file) {
  if (path == nullptr || dir == nullptr || file == nullptr) return;
  const std::string_view whole(path);
  const std::size_t slash = whole.rfind('/');
  const bool split = slash != std::string_view::npos;
  const char* rest = split ? path + slash + 1 : path;
  if ((split && slash >= pathSize) || std::strlen(rest) >= pathSize) {
    strclear(dir);
    strclear(file);
    errno = ENAMETOOLONG;
    return;
  }
  if (split) {
    strncpy_kes(dir, pathSize, path, slash);
  } else {
    strcpy_kes(dir, pathSize, "./");
  }
  strcpy_kes(file, pathSize, *rest != '\0' ? rest : "*");
}
