#pragma once

#include <sys/types.h>

namespace kes::proc {

class Program;
class StartNote;

/// Makes a child process that becomes the program, at first the leader of a new process group if that is
/// wanted. Gives its id, or -1 with errno as fork() and mmap() do; errno stays what it was otherwise. The
/// calling thread is neither interrupted nor cancelled meanwhile, and no handler of this process runs in the
/// child. What fails there is in the note, which is new, once it has ended.
pid_t start(const Program& program, bool newProcessGroup, StartNote& note) noexcept;

/// enterNewProcessGroup(), which has told of a failure. Gives its errno, or 0.
int leadNewProcessGroup() noexcept;

}  // namespace kes::proc
