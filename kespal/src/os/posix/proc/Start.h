#pragma once

#include <sys/types.h>

namespace kes::proc {

class Program;

/// Makes a child process that becomes the program, at first the leader of a new process group if that is
/// wanted. Gives its id, or -1 with errno as fork() does; errno stays what it was otherwise. The calling
/// thread is neither interrupted nor cancelled meanwhile, and no handler of this process runs in the child.
pid_t start(const Program& program, bool newProcessGroup) noexcept;

}  // namespace kes::proc
