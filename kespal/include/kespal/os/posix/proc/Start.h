#pragma once  // since 0.1

#include <sys/types.h>

#include <cstddef>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes::os {

/// What a child does until it is a program; it ends when it comes back.
using ChildBody = void (*)(void* argument);

/// Makes a child process on its way to a program. No handler of this process runs in it, and it holds all
/// signals back until its body does otherwise. What memory or a lock is needed for was done before.
///
/// First, where the system has it, a child that shares this process's memory until then, so that it costs no
/// more in a large process than in a small one; the caller stands still meanwhile. `quietly` makes system
/// calls only, which includes this function, for a program with that many arguments, changes nothing but its
/// stack and `argument`, says nothing to anybody who might keep it waiting, and comes back when it cannot
/// exec. Nothing is left of it then, and a plain fork makes a child that calls `aloud`.
///
/// Gives the id of the child, and -1 with errno as fork() does; 0 when `aloud` is null and no child is left.
/// errno stays what it was otherwise. The calling thread is neither interrupted nor cancelled meanwhile. Any
/// thread may call.
pid_t startChild(ChildBody quietly, ChildBody aloud, void* argument, std::size_t arguments) noexcept;

}  // namespace kes::os

KES_EXPORT_END
