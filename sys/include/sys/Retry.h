#pragma once

#include <cerrno>

namespace kes::sys {

/// Repeats a system call that answers -1 and sets errno, while it is a signal that interrupts it.
template <typename Call>
auto retry(Call call) {
  for (;;) {
    const auto result = call();
    if (result != -1 || errno != EINTR) return result;
  }
}

}  // namespace kes::sys
