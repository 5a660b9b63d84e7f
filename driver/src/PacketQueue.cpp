#include "PacketQueue.h"

#include <utility>

namespace kes::driver {

bool PacketQueue::push(Frame packet) {
  if (packets_.size() >= capacity_) {
    ++dropped_;
    return false;
  }
  packets_.push_back(std::move(packet));
  return true;
}

std::optional<Frame> PacketQueue::pop() {
  if (packets_.empty()) return std::nullopt;
  std::optional<Frame> first(std::move(packets_.front()));
  packets_.pop_front();
  return first;
}

}  // namespace kes::driver
