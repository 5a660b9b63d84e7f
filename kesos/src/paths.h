#pragma once

#include <cerrno>
#include <cstddef>

namespace kes::kesos {

/// What the layer's path buffers hold, terminator included.
constexpr std::size_t pathSize = 1024;

/// 0, with the reason in errno.
inline int failWith(int errnum) {
  errno = errnum;
  return 0;
}

/// Calls a system function that takes one or two paths: 1 when it returns 0. Paths that are null fail as they
/// would inside the system.
template <typename Call, typename... Paths>
int withPaths(Call call, const Paths*... paths) {
  if (!(static_cast<bool>(paths) && ...)) return failWith(EFAULT);
  return call(paths...) == 0 ? 1 : 0;
}

}  // namespace kes::kesos
