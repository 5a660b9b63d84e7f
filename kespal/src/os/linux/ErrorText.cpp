#include "os/ErrorText.h"

// g++ always defines _GNU_SOURCE, and with it <cstring> declares the GNU strerror_r, which cannot fail.
// The POSIX form has this name in every C library that offers both.
extern "C" int __xpg_strerror_r(int, char*, std::size_t);  // NOLINT(bugprone-reserved-identifier)

namespace kes::os {

bool errorText(int errnum, char* buffer, std::size_t size) {
  return ::__xpg_strerror_r(errnum, buffer, size) == 0;
}

}  // namespace kes::os
