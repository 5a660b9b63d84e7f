#pragma once

#include <cerrno>
#include <cstddef>

namespace kes::kesos {

/// What the layer's path buffers hold, terminator included.
constexpr std::size_t pathSize = 1024;

/// 0, with the reason in errno.
inline int failWith(int error) {
  errno = error;
  return 0;
}

/// Calls a system function that takes one or two names: 1 when it returns 0. Names that are null fail as they
/// would inside the system.
template <typename Call, typename... Names>
int withNames(Call call, const Names*... names) {
  if (!(static_cast<bool>(names) && ...)) return failWith(EFAULT);
  return call(names...) == 0 ? 1 : 0;
}

}  // namespace kes::kesos
