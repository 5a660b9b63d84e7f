#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "kesos/files.h"
#include "kesos/strings.h"
#include "paths.h"

using kes::kesos::failWith;
using kes::kesos::pathSize;

namespace {

/// The running program, where the system has a link to it; false with errno.
bool readProgramLink(std::array<char, PATH_MAX>& target) {
  std::array<char, 32> link{};
  sprintf_kes(link.data(), link.size(), "/proc/%u/exe", static_cast<unsigned int>(::getpid()));
  const ssize_t length = ::readlink(link.data(), target.data(), target.size() - 1);
  if (length < 0) return false;
  target[static_cast<std::size_t>(length)] = '\0';
  return true;
}

/// Cuts the program's path into directory and name; 0 or an error number.
int splitProgram(char* path, unsigned int size, char* name, unsigned int nameSize) {
  std::array<char, PATH_MAX> target{};
  if (!readProgramLink(target)) return errno;
  char* const slash = std::strrchr(target.data(), '/');
  if (slash == nullptr) return EINVAL;
  *slash = '\0';
  if (std::strlen(target.data()) >= size) return ENAMETOOLONG;
  strcpy_kes(path, size, target.data());
  strcpy_kes(name, nameSize, slash + 1);
  return 0;
}

/// Whether the owner may execute what is at the path; a path that does not fit is passed over.
bool isProgram(std::string_view directory, const char* name, std::array<char, pathSize>& path) {
  const int length = sprintf_kes(path.data(), path.size(), "%.*s/%s", static_cast<int>(directory.size()),
                                 directory.data(), name);
  if (length < 0 || static_cast<std::size_t>(length) >= path.size()) return false;
  struct stat state {};
  return ::stat(path.data(), &state) == 0 && (state.st_mode & S_IXUSR) != 0;
}

/// Tries the directories of a list in turn.
bool findProgram(std::string_view list, const char* name, std::array<char, pathSize>& path) {
  for (;;) {
    const std::size_t end = list.find(':');
    if (isProgram(list.substr(0, end), name, path)) return true;
    if (end == std::string_view::npos) return false;
    list.remove_prefix(end + 1);
  }
}

}  // namespace

int KesOsCreateTempdir(char* buf, size_t size) {
  if (buf == nullptr) return failWith(EFAULT);
  const char* base = std::getenv("TMPDIR");
  if (base == nullptr) base = "/tmp";
  if (KesOsIsDir(base) == 0) return 0;
  const int length = sprintf_kes(buf, size, "%s/%s", base, "kes-XXXXXX");
  if (length < 0 || static_cast<std::size_t>(length) >= size) return failWith(ENAMETOOLONG);
  return ::mkdtemp(buf) != nullptr ? 1 : 0;
}

int KesOsGetModuleFileName(char* path, unsigned int size, char* name, unsigned int nameSize,
                           unsigned int* error) {
  errno = path != nullptr ? splitProgram(path, size, name, nameSize) : EFAULT;
  if (error != nullptr) *error = static_cast<unsigned int>(errno);
  return errno == 0 ? 1 : 0;
}

int KesOsGetModulePath(char* path, unsigned int size, unsigned int* error) {
  return KesOsGetModuleFileName(path, size, nullptr, 0, error);
}

size_t KesOsdGetPath(char* name) {
  if (name == nullptr) return static_cast<size_t>(failWith(EFAULT));
  if (std::strchr(name, '/') != nullptr) return std::strlen(name);
  std::array<char, pathSize> path{};
  const char* own = std::getenv("PATH");
  if (!findProgram("/sbin:/usr/sbin:/usr/local/sbin:/bin:/usr/bin:/usr/local/bin", name, path) &&
      (own == nullptr || !findProgram(own, name, path))) {
    return 0;
  }
  strcpy_kes(name, pathSize, path.data());
  return std::strlen(name);
}
