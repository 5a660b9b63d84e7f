#pragma once  // since 0.1

#include <iosfwd>
#include <string>
#include <vector>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes {

/// The call stack of a thread at one moment: one line of text per frame, stored outermost caller first.
/// A plain value. The text of a frame is the platform's, its symbol demangled where the platform writes
/// it in parentheses. A frame of the program itself has a name only where the program exports its symbols
/// (-rdynamic; ENABLE_EXPORTS in CMake); a static function has none.
class Backtrace : public std::vector<std::string> {
 public:
  using std::vector<std::string>::vector;

  /// The calling thread's stack, without the frame of this function; at most 127 frames. Empty when the
  /// platform cannot name the frames or knows only one. Any thread may call, also in a forked child; not a
  /// signal handler (it allocates). Throws std::bad_alloc.
  [[gnu::noinline]] static Backtrace get();
};

/// Writes every line and a newline each, innermost frame first. Errors of the stream are the stream's.
std::ostream& operator<<(std::ostream& stream, const Backtrace& backtrace);

}  // namespace kes

KES_EXPORT_END
