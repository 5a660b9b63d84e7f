#pragma once

#include <sys/types.h>

#include <cstdint>

namespace kes::os {

/// What the system knows of a process by its id.
struct Life {
  bool isOver;          ///< there is no such process, or only its status is left
  std::uint64_t start;  ///< when it began, in the system's own unit; 0 when that cannot be told. Ids are used
                        ///< again, but not with the same start; the value is only to be compared
};

/// Takes no memory.
Life lifeOf(pid_t pid) noexcept;

}  // namespace kes::os
