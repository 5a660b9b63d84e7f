#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace kes::proc {

/// Writes to standard error with system calls alone; what cannot be written is lost.
inline void writeRaw(const char* text, std::size_t size) noexcept {
  while (size != 0) {
    const ssize_t written = ::write(STDERR_FILENO, text, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text += written;
    size -= static_cast<std::size_t>(written);
  }
}

/// A short message that takes neither memory nor locks: for a child between fork and exec. What does not
/// fit its buffer is cut off.
class RawMessage {
 public:
  RawMessage& add(const char* text) noexcept {
    const std::size_t room = sizeof text_ - size_, length = ::strnlen(text, room);
    std::memcpy(text_ + size_, text, length);
    size_ += length;
    return *this;
  }

  RawMessage& add(int number) noexcept {
    char digits[16] = "";
    char* first = digits + sizeof digits - 1;
    long rest = number < 0 ? -static_cast<long>(number) : number;
    do {
      *--first = static_cast<char>('0' + rest % 10);
      rest /= 10;
    } while (rest != 0);
    if (number < 0) *--first = '-';
    return add(first);
  }

  void send() const noexcept { writeRaw(text_, size_); }

 private:
  char text_[128];
  std::size_t size_ = 0;
};

}  // namespace kes::proc
