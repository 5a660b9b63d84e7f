#pragma once

#include <sys/ipc.h>

#include <cerrno>

extern "C" {

extern int ipc_default_mode;          ///< permission bits of new semaphores and segments
extern unsigned int ipc_default_uid;  ///< owner they get; both 0xFFFFFFFF: whom the system gives them
extern unsigned int ipc_default_gid;
}

namespace kes::kesos {

/// Whether the error number says that the object was removed after its key or id was looked up.
inline bool isGone(int errnum) { return errnum == ENOENT || errnum == EINVAL || errnum == EIDRM; }

/// How often a create is tried that meets the removal of the object with its key every time.
constexpr int mostTries = 100;

/// Whether new objects get another owner than the system's choice.
bool ownerWanted() noexcept;

/// Enters the owner and the permission bits that new objects get.
void fillOwner(ipc_perm& permissions) noexcept;

/// Gives a new segment the owner that is wanted.
bool setSegmentOwner(int shmid) noexcept;

}  // namespace kes::kesos
