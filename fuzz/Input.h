#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

/// Takes an input apart, from its beginning. What is not there is 0 or empty.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

  bool empty() const { return at_ >= rest_.size(); }

  std::size_t number() { return empty() ? 0 : static_cast<unsigned char>(rest_[at_++]); }
  std::size_t longNumber() {
    const std::size_t low = number();
    return low + 256 * number();
  }

  std::string bytes(std::size_t count) {
    const std::string taken = rest_.substr(std::min(at_, rest_.size()), count);
    at_ += taken.size();
    return taken;
  }

  /// Up to the next NUL, which goes too.
  std::string text() {
    const std::string taken =
        bytes(std::min(rest_.find('\0', at_), rest_.size()) - std::min(at_, rest_.size()));
    at_ += empty() ? 0 : 1;
    return taken;
  }

  std::string rest() { return bytes(rest_.size()); }

 private:
  std::string rest_;
  std::size_t at_ = 0;
};
