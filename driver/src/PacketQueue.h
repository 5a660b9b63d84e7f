#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

namespace kes::driver {

using Frame = std::vector<std::uint8_t>;

/// The captured packets that nobody has fetched yet, first in, first out; bounded. A packet that comes when
/// it is full is dropped and counted.
class PacketQueue {
 public:
  static constexpr std::size_t usualCapacity = 1024;

  explicit PacketQueue(std::size_t capacity = usualCapacity) : capacity_(capacity) {}

  /// Whether there was room.
  bool push(Frame packet);
  std::optional<Frame> pop();

  bool empty() const { return packets_.empty(); }
  std::size_t size() const { return packets_.size(); }
  std::uint64_t dropped() const { return dropped_; }

 private:
  std::size_t capacity_;
  std::deque<Frame> packets_;
  std::uint64_t dropped_ = 0;
};

}  // namespace kes::driver
