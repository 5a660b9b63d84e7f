#pragma once

#include <sys/stat.h>
#include <unistd.h>

namespace kes::fs {

/// Whether the effective user may execute a file, by its permission bits alone: supplementary groups do not
/// count, and root is nobody special. Only system calls: safe between fork and exec.
inline bool isExecutable(const char* path) noexcept {
  struct stat file;
  if (::stat(path, &file) != 0 || !S_ISREG(file.st_mode)) return false;
  return (file.st_mode & S_IXOTH) != 0 || ((file.st_mode & S_IXUSR) != 0 && file.st_uid == ::geteuid()) ||
         ((file.st_mode & S_IXGRP) != 0 && file.st_gid == ::getegid());
}

}  // namespace kes::fs
