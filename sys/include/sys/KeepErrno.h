#pragma once

#include <cerrno>

namespace kes::sys {

/// Gives errno its value back at the end of the scope: what is done until then does not say why the call
/// before it failed.
class KeepErrno {
 public:
  KeepErrno() noexcept = default;
  ~KeepErrno() { errno = errnum_; }
  KeepErrno(const KeepErrno&) = delete;
  KeepErrno& operator=(const KeepErrno&) = delete;

 private:
  int errnum_ = errno;
};

}  // namespace kes::sys
