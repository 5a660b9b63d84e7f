#include "kespal/fs/DirFaults.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

using kes::test::dirFaults;

extern "C" dirent* __real_readdir(DIR*);
extern "C" DIR* __real_fdopendir(int);
extern "C" int __real_closedir(DIR*);

extern "C" dirent* __wrap_readdir(DIR* stream) {
  if (dirFaults.readAt == 0 || --dirFaults.readAt != 0) return __real_readdir(stream);
  errno = dirFaults.read;
  return nullptr;
}

extern "C" DIR* __wrap_fdopendir(int fd) {
  if (dirFaults.fdopendir == 0) return __real_fdopendir(fd);
  errno = dirFaults.fdopendir;
  return nullptr;
}

extern "C" int __wrap_closedir(DIR* stream) {
  const int result = __real_closedir(stream);
  if (dirFaults.close == 0) return result;
  errno = dirFaults.close;
  return -1;
}

namespace kes::test {

DirFaults dirFaults;

Names namesIn(fs::Dir& dir) {
  Names names;
  while (dir.nextEntry()) names.emplace_back(dir.entryName());
  std::sort(names.begin(), names.end());
  return names;
}

void goTo(fs::Dir& dir, const std::string& name) {
  while (dir.nextEntry()) {
    if (name == dir.entryName()) return;
  }
  throw std::runtime_error("no entry " + name);
}

}  // namespace kes::test
