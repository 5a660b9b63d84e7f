#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Driver.h"
#include "Records.h"

namespace kes::driver {

/// What a scripted call gets instead of, or on top of, the driver's usual reply.
struct Play {
  enum class Fate { Reply, Twice, Silent, HangUp, Die, ReplyThenHangUp, ReplyThenDie };

  std::size_t line = 0;
  std::uint64_t times = 1;
  std::optional<std::vector<std::uint8_t>> expected{};
  std::chrono::milliseconds delay{0};
  std::optional<std::uint32_t> result{};
  std::optional<std::vector<std::uint8_t>> structure{};
  std::uint32_t scalars = 0;
  std::optional<std::uint32_t> magic{};
  std::optional<std::uint16_t> version{};
  std::optional<std::uint16_t> kind{};
  std::int64_t sequenceShift = 0;  ///< added to the right sequence number
  std::int64_t lengthShift = 0;    ///< added to the right length
  std::optional<std::vector<std::uint8_t>> raw{};
  Fate fate = Fate::Reply;

  /// Whether the driver itself answers, and this only changes how the answer travels.
  bool leavesAnswer() const { return !result && !structure && !raw; }
  /// The reply's bytes.
  std::vector<std::uint8_t> datagram(const iokit::RequestHeader& request, const Answer& usual) const;
};

/// The lines of a script, in order for each call. kesdriver(5) describes the format.
class Script {
 public:
  Script() = default;
  explicit Script(std::map<CallName, std::vector<Play>> plays) : plays_(std::move(plays)) {}

  /// What the next such call gets; null when the script has nothing (more) for it.
  const Play* next(CallName call);
  /// Compares a request with what the play expects; says on standard error what differs.
  void check(const Play& play, const iokit::Request& request);

  std::uint64_t failures() const { return failures_; }
  /// How many plays are still to come; a line for ever is none.
  std::uint64_t unplayed() const;

  static constexpr std::uint64_t forever = ~std::uint64_t{0};

 private:
  struct Position {
    std::size_t play = 0;
    std::uint64_t played = 0;
  };

  std::map<CallName, std::vector<Play>> plays_;
  std::map<CallName, Position> positions_;
  std::uint64_t failures_ = 0;
};

/// The script in a text. Throws std::runtime_error that names the line.
Script parseScript(const std::string& text);

}  // namespace kes::driver
