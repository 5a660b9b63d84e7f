#pragma once

#include <string>
#include <string_view>

#include "kespal/proc/Child.h"

namespace kes::kesos {

/// Collects the status of a child that nobody waits for, and deletes it; one that still runs when the process
/// collector ends is left alone, and only its object deleted. On the process collector's thread.
class AsyncChildCleaner : public proc::Child::Notification {
 public:
  void exited(proc::Child& child) override;
  void released(proc::Child& child) override;
};

/// What the shell is told to run for a command line: the program's path as $PATH has it, white space in it
/// escaped, and the rest of the line. Empty when there is no such program.
std::string shellCommand(std::string_view line);

}  // namespace kes::kesos

/// The one cleaner. There before anything is initialised, and never destroyed: the collector may use it until
/// the process is gone.
extern kes::kesos::AsyncChildCleaner& _async_child_cleaner;  // NOLINT(bugprone-reserved-identifier)
