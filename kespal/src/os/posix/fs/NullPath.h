#pragma once

#include <cerrno>

namespace kes::fs {

/// What a system call says to a null path; compilers take for granted that it is never asked.
inline int refuseNull() noexcept {
  errno = EFAULT;
  return -1;
}

}  // namespace kes::fs
