#pragma once  // since 0.1

#include <cstdint>
#include <iosfwd>
#include <string>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes::proc {

/// What failed in a child on its way to its program. A plain value.
struct StartFailure {
  /// In the order in which they are taken.
  enum class Step : std::uint32_t {
    ProcessGroup = 1,  ///< not fatal: the program runs, in the group of its parent
    SignalMask,
    Redirection,  ///< of a standard stream; not fatal: the program runs, with the stream of its parent
    Groups,       ///< the supplementary groups
    GroupId,
    UserId,
    WayBack,  ///< something of the former user was left, or could be had again: EPERM
    Directory,
    Exec
  };

  Step step;   ///< that failed
  int errnum;  ///< of the system call that failed

  /// Whether the program was not started: the child has ended with exit code 125 then.
  bool isFatal() const noexcept { return step != Step::ProcessGroup && step != Step::Redirection; }

  /// The step, and the system's text for the number: "exec: No such file or directory (2)". Raises nothing
  /// but std::bad_alloc.
  std::string text() const;

  friend bool operator==(const StartFailure&, const StartFailure&) noexcept = default;
};

/// Writes the text().
std::ostream& operator<<(std::ostream& stream, const StartFailure& failure);

}  // namespace kes::proc

KES_EXPORT_END
