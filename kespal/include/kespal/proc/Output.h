#pragma once  // since 0.1

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "kespal/Export.h"
#include "kespal/proc/ExitStatus.h"
#include "kespal/time/Milliseconds.h"

KES_EXPORT_BEGIN

namespace kes::proc {

class Child;

/// How a program is run for its output.
struct OutputOptions {
  /// As long as it takes.
  static constexpr time::Milliseconds noLimit = time::Milliseconds::max();

  /// What the program reads from its standard input; then that ends. Must outlive the call.
  std::string_view input{};
  /// Whether its standard error goes where its standard output goes, in the order in which it writes them.
  bool joined = false;
  /// How many bytes are kept of each output, from its beginning. What comes behind is read, so that the
  /// program is not held up, and dropped.
  std::size_t most = std::size_t{1} << 20;
  /// How long the program and all that holds its output may take.
  time::Milliseconds limit = noLimit;
  /// How long it has from SIGTERM to SIGKILL when the limit has passed.
  time::Milliseconds grace = std::chrono::seconds(1);
};

/// What a program has written, and how it ended.
struct Output {
  ExitStatus status{0};    ///< of the program
  std::string out;         ///< also what was written to standard error, when they are joined
  std::string err;         ///< empty when they are joined
  bool truncated = false;  ///< more was written than was to be kept
  bool timedOut = false;   ///< the limit passed before the program had ended, and all who could write
};

/// Starts a program, gives it its input, and collects its output until it has ended. The child is set up with
/// arguments and surroundings, and was not started; its streams do not count, and stay as they were set.
///
/// The output ends when nobody holds it any more: a program in the background that has inherited it keeps the
/// call waiting, up to the limit. Then the program is told to end (SIGTERM, and SIGKILL after the grace) if
/// it still runs, what it has written by then is taken along, and nobody else is waited for. A program that
/// does not read its input is no error, and no SIGPIPE comes of it.
///
/// The memory taken is that of the output that is kept. Times are those of the monotonic clock. Programs that
/// other threads start meanwhile by a Child do not inherit the pipes.
///
/// Errors are those of Child::create() and Child::waitFor(); OsError (EINVAL) before the clocks were made
/// ready (ClockBase::init(), KesPal), (EMFILE, ENFILE, ENOMEM) for the pipes, and (EPERM) for a program of
/// another user that cannot be ended. NoSuchProcessError when somebody else has reaped it. std::bad_alloc.
/// After an error, and in a thread that is cancelled, the program is killed and waited for, unless it is
/// another user's. Any thread may call, with a child of its own.
Output captureOutput(Child& child, const OutputOptions& options = {});

}  // namespace kes::proc

KES_EXPORT_END
