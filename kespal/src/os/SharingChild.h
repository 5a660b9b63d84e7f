#pragma once

#include <sys/types.h>

#include <cstddef>

namespace kes::os {

/// Makes a child that calls `body` on a stack of its own and shares this process's memory until it execs or
/// ends; the caller stands still meanwhile. So what that costs does not grow with this process. The body
/// makes system calls only, changes nothing but its stack and `argument`, says nothing to anybody who might
/// keep it waiting, and ends when it cannot exec.
///
/// Gives the id of the child once it runs its program; one that somebody kills before is told as it was, by
/// the id of another that ends in the same way. 0 when the system has no such child, or it ended
/// by itself before: nothing is left of it then. -1 with errno when there is no room for another process
/// (EAGAIN, ENOMEM). errno is changed in the other cases, too.
pid_t startSharing(void (*body)(void*), void* argument, std::size_t stackSize) noexcept;

}  // namespace kes::os
