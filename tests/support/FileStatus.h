#pragma once

#include <sys/stat.h>

#include <string>

namespace kes::test {

/// What the system says of an entry itself, links included; all zero when there is none.
inline struct stat statusOf(const std::string& path) {
  struct stat status {};
  ::lstat(path.c_str(), &status);
  return status;
}
inline bool isThere(const std::string& path) { return statusOf(path).st_mode != 0; }
inline mode_t modeOf(const std::string& path) { return statusOf(path).st_mode & 07777; }

}  // namespace kes::test
