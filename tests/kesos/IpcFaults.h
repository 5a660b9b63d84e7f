#pragma once

#include <optional>

namespace kes::test {

/// The System V calls of this program, each counted and, on request, refused (linker option --wrap).
enum class IpcCall { semget, semop, semctl, shmget, shmat, shmctl };

/// The next call with this command (any, when none is given) fails with `error`, after `skipped` others.
void refuse(IpcCall call, int error, std::optional<int> command = {}, int skipped = 0);
void refuseNothing();
int countOf(IpcCall call);

/// Something that happens while this thread sleeps for the next time.
void duringNextNap(void (*action)());

}  // namespace kes::test
