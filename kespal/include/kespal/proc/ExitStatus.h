#pragma once  // since 0.1

#include <iosfwd>
#include <optional>
#include <string>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes::proc {

/// How a process ended: what is in the wait status that waitpid() and Child::wait() report. A plain value.
class ExitStatus {
 public:
  /// Of a raw wait status.
  constexpr explicit ExitStatus(int waitStatus) noexcept : waitStatus_(waitStatus) {}

  constexpr int waitStatus() const noexcept { return waitStatus_; }  ///< as it was given

  /// Whether it ended by itself, with exit code 0.
  constexpr bool isSuccess() const noexcept { return waitStatus_ == 0; }
  /// 0 to 255; none when a signal ended it.
  std::optional<int> exitCode() const noexcept;
  /// The signal that ended it; none when it ended by itself.
  std::optional<int> signal() const noexcept;
  /// Whether the signal left a core dump.
  bool coreDumped() const noexcept;

  /// "exited 3", "killed by SIGTERM", "killed by SIGSEGV, core dumped"; "killed by signal 34" for one of
  /// those that have no name on every system, and "not ended" for one that is only stopped. In no other
  /// language. std::bad_alloc.
  std::string text() const;

  friend constexpr bool operator==(const ExitStatus&, const ExitStatus&) noexcept = default;

 private:
  int waitStatus_;
};

/// Writes the text().
std::ostream& operator<<(std::ostream& stream, const ExitStatus& status);

}  // namespace kes::proc

KES_EXPORT_END
