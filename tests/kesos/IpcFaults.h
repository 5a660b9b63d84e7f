#pragma once

#include <functional>
#include <optional>

namespace kes::test {

/// The System V calls of this program and the advice on their memory, each counted and, on request, refused
/// (linker option --wrap).
enum class IpcCall { semget, semop, semctl, shmget, shmat, shmctl, shmdt, madvise };

/// The next call with this command (any, when none is given) fails with `error`, after `skipped` others.
void refuse(IpcCall call, int error, std::optional<int> command = {}, int skipped = 0);
/// From now on nothing is refused, and nothing happens before a call.
void refuseNothing();
int countOf(IpcCall call);

/// Something that happens just before this thread, or the child that it forks, makes the next such call.
void beforeNext(IpcCall call, std::function<void()> action);

/// Something that happens while this thread sleeps for the next time.
void duringNextNap(void (*action)());

}  // namespace kes::test
