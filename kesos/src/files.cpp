#include "kesos/files.h"

#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "paths.h"

using kes::kesos::failWith;
using kes::kesos::pathSize;
using kes::kesos::withPaths;

namespace {

bool lookAt(const char* name, struct stat& state) {
  return withPaths([&state](const char* path) { return ::stat(path, &state); }, name) != 0;
}

bool isSeparator(char c) { return c == '/' || c == '\\'; }

/// Whether a directory is there to be searched; `result` is whether it can be written to, too.
bool canBeSearched(const char* prefix, int& result) {
  if (::access(prefix, X_OK) != 0) return false;
  result = ::access(prefix, W_OK) == 0 ? 1 : 0;
  return true;
}

/// Makes sure that one directory of a path is there; false ends the walk. `result` is what this test found.
bool checkOrCreate(const char* prefix, int& result) {
  if (canBeSearched(prefix, result) || ::access(prefix, W_OK) == 0) return true;
  result = ::mkdir(prefix, 0700) == 0 ? 1 : 0;
  if (result != 0) return true;
  const int errnum = errno;
  if (errnum == EEXIST && canBeSearched(prefix, result)) return true;  // somebody else was faster
  return failWith(errnum) != 0;
}

/// Whether a part of the path has the first `length` bytes: it ends before a separator and at the last byte,
/// whatever that is. The root needs no test.
bool endsPart(std::string_view path, std::size_t length) {
  return length == path.size() || (isSeparator(path[length]) && !isSeparator(path[length - 1]));
}

}  // namespace

int KesOsFileExists(const char* name) {
  return withPaths([](const char* path) { return ::access(path, F_OK); }, name);
}

int KesOsIsDir(const char* name) {
  struct stat state {};
  return lookAt(name, state) && S_ISDIR(state.st_mode) ? 1 : 0;
}

int KesOsChkAndCreateDir(const char* path) {
  if (KesOsFileExists(path) != 0) return 1;
  if (path == nullptr) return 0;
  const std::string_view whole(path);
  if (whole.size() >= pathSize) return failWith(ENAMETOOLONG);
  std::array<char, pathSize> prefix{};
  int result = 0;
  for (std::size_t length = 1; length <= whole.size(); ++length) {
    prefix[length - 1] = whole[length - 1];
    if (endsPart(whole, length) && !checkOrCreate(prefix.data(), result)) break;
  }
  return result;
}

int KesOsGetFileSize(const char* name, unsigned int* size) {
  struct stat state {};
  const bool known = lookAt(name, state);
  if (size != nullptr) *size = static_cast<unsigned int>(state.st_size);
  return known ? 1 : 0;
}

int KesOsGetFileTime(const char* name, time_t* accessTime, time_t* modifyTime) {
  struct stat state {};
  if (!lookAt(name, state)) return 0;
  if (accessTime != nullptr) *accessTime = state.st_atime;
  if (modifyTime != nullptr) *modifyTime = state.st_mtime;
  return 1;
}

int KesOsSetFileTime(const char* name, time_t t) {
  const utimbuf times{t, t};
  return withPaths([&times](const char* path) { return ::utime(path, &times); }, name);
}

int KesOsDeleteFile(const char* name) { return withPaths(::unlink, name); }

int KesOsDeleteDir(const char* name) { return withPaths(::rmdir, name); }

int KesOsRenameFile(const char* from, const char* to) { return withPaths(::rename, from, to); }

int KesOsGetDiskDescriptor(void) { return 0; }
