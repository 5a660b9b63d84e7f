#pragma once

#include <sys/uio.h>
#include <unistd.h>

#include <charconv>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <string_view>

#include "signal/NoWriteSignals.h"
#include "sys/NoCancel.h"
#include "sys/Retry.h"

namespace kes::proc {

/// A message for standard error that takes neither memory nor locks: for a child between fork and exec. It
/// goes out in one write, so that those of several children do not mix. Texts must live until then; pieces
/// that come too many are left out, and what cannot be written is lost: no signal tells of that, which would
/// end the child in another way than its parent is promised.
class RawMessage {
 public:
  RawMessage& add(std::string_view text) noexcept {
    if (count_ != maxPieces) pieces_[count_++] = {const_cast<char*>(text.data()), text.size()};
    return *this;
  }

  RawMessage& add(int number) noexcept {
    char* const first = digits_ + used_;
    char* const last = std::to_chars(first, digits_ + sizeof digits_, number).ptr;
    used_ = static_cast<std::size_t>(last - digits_);
    return add({first, static_cast<std::size_t>(last - first)});
  }

  void send() noexcept {
    const sys::NoCancel untilSent;
    const signal::NoWriteSignals whileSending;

    for (::iovec* next = pieces_; count_ != 0;) {
      ssize_t written = sys::retry([&] { return ::writev(STDERR_FILENO, next, count_); });
      if (written <= 0) return whileSending.take();
      for (; count_ != 0 && static_cast<std::size_t>(written) >= next->iov_len; ++next, --count_) {
        written -= static_cast<ssize_t>(next->iov_len);
      }
      if (count_ == 0) return;
      next->iov_base = static_cast<char*>(next->iov_base) + written;
      next->iov_len -= static_cast<std::size_t>(written);
    }
  }

 private:
  static constexpr int maxPieces = 10;

  ::iovec pieces_[maxPieces];
  int count_ = 0;
  char digits_[32];  // of two numbers
  std::size_t used_ = 0;
};

}  // namespace kes::proc
