#pragma once

#include <cerrno>
#include <cstddef>
#include <iterator>

#include "os/System.h"

namespace kes::proc {

/// The system's texts, in this thread's language, of what a child may find between fork and exec. Asked for
/// beforehand: for a text the system takes the locale's locks, and for a translated one memory. Of an error
/// that nobody expected there is only the text that is not translated.
class ErrorTexts {
 public:
  ErrorTexts() noexcept {
    for (std::size_t at = 0; at < std::size(expected); ++at) {
      if (!os::errorText(expected[at], texts_[at], sizeof texts_[at])) texts_[at][0] = '\0';
    }
  }

  /// Null when the system has none. Safe between fork and exec.
  const char* of(int errnum) const noexcept {
    for (std::size_t at = 0; at < std::size(expected); ++at) {
      if (expected[at] == errnum) return texts_[at][0] != '\0' ? texts_[at] : nullptr;
    }
    return os::plainErrorText(errnum);
  }

 private:
  // What the manual pages of execve, chdir and sigprocmask name, and file systems and security modules add.
  static constexpr int expected[] = {ENOENT,       EACCES,    EPERM,    ENOEXEC,      ENOTDIR,   EISDIR,
                                     ENAMETOOLONG, ELOOP,     E2BIG,    ENOMEM,       ETXTBSY,   EINVAL,
                                     EFAULT,       EIO,       EMFILE,   ENFILE,       EAGAIN,    EBADF,
                                     EBUSY,        EINTR,     ENODEV,   ENXIO,        ENOSYS,    EOPNOTSUPP,
                                     ESTALE,       ETIMEDOUT, ENOTCONN, ECONNREFUSED, EHOSTDOWN, EOVERFLOW};

  char texts_[std::size(expected)][128];
};

}  // namespace kes::proc
