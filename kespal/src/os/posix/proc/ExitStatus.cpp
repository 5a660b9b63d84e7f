#include "kespal/proc/ExitStatus.h"

#include <sys/wait.h>

#include <ostream>

#include "kespal/signal/Names.h"

namespace kes::proc {

namespace {

/// The descriptions that the system has for signals without a label are in the language of the user.
std::string nameOf(int signal) {
  const std::string label = signal::siglabel(signal);
  return label.starts_with("SIG") ? label : "signal " + std::to_string(signal);
}

}  // namespace

std::optional<int> ExitStatus::exitCode() const noexcept {
  if (!WIFEXITED(waitStatus_)) return std::nullopt;
  return WEXITSTATUS(waitStatus_);
}

std::optional<int> ExitStatus::signal() const noexcept {
  if (!WIFSIGNALED(waitStatus_)) return std::nullopt;
  return WTERMSIG(waitStatus_);
}

bool ExitStatus::coreDumped() const noexcept { return WIFSIGNALED(waitStatus_) && WCOREDUMP(waitStatus_); }

std::string ExitStatus::text() const {
  if (const auto code = exitCode()) return "exited " + std::to_string(*code);
  const auto killer = signal();
  if (!killer) return "not ended";
  return "killed by " + nameOf(*killer) + (coreDumped() ? ", core dumped" : "");
}

std::ostream& operator<<(std::ostream& stream, const ExitStatus& status) { return stream << status.text(); }

}  // namespace kes::proc
