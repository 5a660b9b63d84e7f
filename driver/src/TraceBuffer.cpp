#include "TraceBuffer.h"

#include <algorithm>

namespace kes::driver {
namespace {

std::string withoutNuls(std::string_view text) {
  std::string rest(text);
  rest.erase(std::remove(rest.begin(), rest.end(), '\0'), rest.end());
  return rest;
}

std::size_t wholeLinesWithin(std::string_view text, std::size_t room) {
  if (text.size() <= room) return text.size();
  const std::size_t lastEnd = text.substr(0, room).rfind('\n');
  return lastEnd == std::string_view::npos ? 0 : lastEnd + 1;
}

}  // namespace

void TraceBuffer::append(std::string_view text) {
  const std::string clean = withoutNuls(text);
  // Once something is lost, all is until there is room again: a gap, not a sieve.
  const std::size_t fitting =
      unreportedLoss_ > 0 && room() < capacity_ / 2 ? 0 : wholeLinesWithin(clean, room());
  if (fitting > 0) noteLoss();
  text_.append(clean, 0, fitting);
  lost_ += clean.size() - fitting;
  unreportedLoss_ += clean.size() - fitting;
}

std::string TraceBuffer::take(std::size_t limit) {
  if (size() == 0) noteLoss();
  std::string front = text_.substr(taken_, limit);
  taken_ += front.size();
  if (taken_ >= text_.size() / 2) {
    text_.erase(0, taken_);
    taken_ = 0;
  }
  return front;
}

void TraceBuffer::noteLoss() {
  if (unreportedLoss_ == 0) return;
  text_ += "*** " + std::to_string(unreportedLoss_) + " bytes of trace lost ***\n";
  unreportedLoss_ = 0;
}

}  // namespace kes::driver
