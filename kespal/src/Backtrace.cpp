#include "kespal/Backtrace.h"

#include <execinfo.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <mutex>
#include <optional>
#include <ostream>
#include <shared_mutex>
#include <span>
#include <utility>

#include "Lasting.h"
#include "kespal/Helper.h"
#include "os/System.h"
#include "sys/Owner.h"

namespace kes {

namespace {

/// The frames of a stack, innermost first, of which the ones before `first` are not told.
struct Frames {
  std::span<void* const> stack;
  std::size_t first;
};

/// The lines of frames met before, by return address and place on the stack, which is a part of the line on
/// some systems. To name a frame costs ten times as much as to find it on the stack. Nobody waits here: who
/// finds the lines busy names the frames himself.
class Lines {
 public:
  /// False when one of the frames is unknown.
  bool find(const Frames& frames, std::uint64_t unloads, Backtrace& trace) const {
    const std::shared_lock lock(mutex_, std::try_to_lock);
    if (!lock || unloads != unloads_) return false;
    for (std::size_t at = frames.stack.size(); at-- > frames.first;) {
      const auto known = lines_.find({frames.stack[at], at});
      if (known == lines_.end()) return false;
      trace.push_back(known->second);
    }
    return true;
  }

  /// `unloads` was read before the frames were named. They are on the caller's stack, hence not unloaded.
  void store(const Frames& frames, std::uint64_t unloads, const Backtrace& trace) {
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock || unloads < unloads_) return;
    if (unloads > unloads_ || lines_.size() > most) lines_.clear();
    unloads_ = unloads;
    auto line = trace.begin();
    for (std::size_t at = frames.stack.size(); at-- > frames.first;) {
      lines_.try_emplace({frames.stack[at], at}, *line++);
    }
  }

 private:
  static constexpr std::size_t most = 4096;

  mutable std::shared_mutex mutex_;
  std::uint64_t unloads_ = 0;
  std::map<std::pair<void*, std::size_t>, std::string> lines_;
};

// A line without these two characters, as macOS writes it, gives everything before its end as "symbol";
// that does not demangle and so comes back unchanged.
std::string readable(const std::string& line) {
  const std::size_t begin = line.find('(') + 1;
  const std::size_t plus = line.rfind('+');
  const std::size_t end = plus == line.npos ? line.size() : plus;
  if (end < begin) return line;
  std::string symbol = line.substr(begin, end - begin);
  demangle(symbol);
  return line.substr(0, begin) + symbol + line.substr(end);
}

/// The system numbers the frames as it gets them: so it gets all, in their order.
void name(const Frames& frames, Backtrace& trace) {
  const sys::Malloced<char*> lines(
      ::backtrace_symbols(frames.stack.data(), static_cast<int>(frames.stack.size())));
  if (!lines) return;
  for (std::size_t at = frames.stack.size(); at-- > frames.first;) trace.push_back(readable(lines.get()[at]));
}

constinit Lasting<Lines> g_lines;

[[maybe_unused]] const bool g_madeAtTheStart = g_lines.make();

}  // namespace

Backtrace Backtrace::get() {
  g_lines.make();
  Lines& lines = g_lines.value;
  std::array<void*, 128> stack;
  const int count = ::backtrace(stack.data(), static_cast<int>(stack.size()));
  Backtrace trace;
  if (count <= 1) return trace;
  // The frame of this function is the first, or the second where a sanitizer stands between.
  const auto end = stack.begin() + count, second = stack.begin() + 1;
  const auto caller = std::find(second, end, __builtin_return_address(0));
  const auto first = caller != end ? caller : second;
  const Frames frames{{stack.begin(), end}, static_cast<std::size_t>(first - stack.begin())};
  trace.reserve(frames.stack.size() - frames.first);
  const std::optional<std::uint64_t> unloads = os::unloads();
  if (unloads && lines.find(frames, *unloads, trace)) return trace;
  trace.clear();
  name(frames, trace);
  if (unloads && !trace.empty()) lines.store(frames, *unloads, trace);
  return trace;
}

std::ostream& operator<<(std::ostream& stream, const Backtrace& backtrace) {
  for (auto line = backtrace.rbegin(); line != backtrace.rend(); ++line) stream << *line << '\n';
  return stream;
}

}  // namespace kes
