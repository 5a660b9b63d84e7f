#include "Script.h"

#include <algorithm>
#include <iostream>

#include "Hex.h"

namespace kes::driver {

std::vector<std::uint8_t> Play::datagram(const iokit::RequestHeader& request, const Answer& usual) const {
  if (raw) return *raw;
  iokit::ReplyHeader header = iokit::replyTo(request);
  header.magic = magic.value_or(header.magic);
  header.version = version.value_or(header.version);
  header.kind = kind.value_or(header.kind);
  header.sequence = static_cast<std::uint32_t>(header.sequence + sequenceShift);
  header.result = result.value_or(static_cast<std::uint32_t>(usual.result));
  std::vector<std::uint8_t> bytes;
  iokit::makeReply(bytes, header, std::vector<std::uint64_t>(scalars),
                   structure ? *structure : usual.structure);
  const auto whole = static_cast<std::int64_t>(bytes.size());
  bytes.resize(static_cast<std::size_t>(std::max<std::int64_t>(whole + lengthShift, 0)));
  return bytes;
}

const Play* Script::next(CallName call) {
  const auto lines = plays_.find(call);
  if (lines == plays_.end()) return nullptr;
  Position& position = positions_[call];
  if (position.play == lines->second.size()) return nullptr;
  const Play& play = lines->second[position.play];
  if (play.times != forever && ++position.played == play.times) position = {position.play + 1, 0};
  return &play;
}

void Script::check(const Play& play, const iokit::Request& request) {
  if (!play.expected || std::equal(request.structure.begin(), request.structure.end(), play.expected->begin(),
                                   play.expected->end())) {
    return;
  }
  ++failures_;
  std::cerr << "kesdriver: script line " << play.line << ": expected " << toHex(*play.expected) << ", got "
            << toHex(request.structure) << '\n';
}

std::uint64_t Script::unplayed() const {
  std::uint64_t count = 0;
  for (const auto& [call, plays] : plays_) {
    const auto found = positions_.find(call);
    const Position position = found == positions_.end() ? Position{} : found->second;
    for (std::size_t i = position.play; i < plays.size(); ++i) {
      if (plays[i].times == forever) continue;
      count += plays[i].times - (i == position.play ? position.played : 0);
    }
  }
  return count;
}

}  // namespace kes::driver
