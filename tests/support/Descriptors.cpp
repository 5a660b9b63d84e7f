#include "support/Descriptors.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <memory>

namespace kes::test {

std::vector<std::string> openDescriptors() {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir("/dev/fd"), ::closedir);
  std::vector<std::string> found;
  while (const dirent* entry = ::readdir(folder.get())) {
    const std::string name = entry->d_name;
    if (name[0] == '.' || std::atoi(entry->d_name) == ::dirfd(folder.get())) continue;
    char target[PATH_MAX];
    const ssize_t length = ::readlink(("/dev/fd/" + name).c_str(), target, sizeof target);
    found.push_back(name + " -> " + std::string(target, length > 0 ? static_cast<std::size_t>(length) : 0));
  }
  std::sort(found.begin(), found.end());
  return found;
}

bool isCloseOnExec(int fd) { return (::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }

}  // namespace kes::test
