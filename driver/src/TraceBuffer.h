#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kes::driver {

/// The driver's accumulated trace text: bounded, because nobody may come to fetch it. What does not fit is
/// lost, in whole lines, and a line in its place says how much.
class TraceBuffer {
 public:
  static constexpr std::size_t usualCapacity = 65536;

  explicit TraceBuffer(std::size_t capacity = usualCapacity) : capacity_(capacity) {}

  /// Adds text; NULs in it are left out, for they would end the text of a reply.
  void append(std::string_view text);
  /// Removes and returns at most `limit` bytes from the front.
  std::string take(std::size_t limit);

  std::size_t size() const { return text_.size() - taken_; }
  std::size_t room() const { return size() < capacity_ ? capacity_ - size() : 0; }
  std::uint64_t lost() const { return lost_; }

 private:
  void noteLoss();

  std::size_t capacity_;
  std::string text_;
  std::size_t taken_ = 0;  // bytes of text_ that are gone already
  std::uint64_t lost_ = 0;
  std::uint64_t unreportedLoss_ = 0;
};

}  // namespace kes::driver
