#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <vector>

/// What the systems do differently in a line or two.
namespace kes::os {

/// The place of the process's array of NAME=value texts, which ends with a null; the array itself is null
/// when there is none. The place stays, the array moves when a variable is set.
char*** environment() noexcept;

/// The POSIX form of strerror_r: writes the system's text for an error number; false when it has none.
bool errorText(int errnum, char* buffer, std::size_t size);
/// The text that is not translated; null when there is none. Takes neither memory nor locks.
const char* plainErrorText(int errnum) noexcept;

/// Whether this error of fsync() says that the descriptor is of a kind that cannot be synced, as pipes and
/// terminals are.
bool nothingToSync(int errnum) noexcept;

/// The saved user id of the process: what seteuid() may return to.
unsigned savedUserId() noexcept;
/// The same of the group ids.
unsigned savedGroupId() noexcept;

/// What setgroups() has to be given for a process of this group id that is a member of these groups besides.
std::vector<gid_t> groupList(unsigned gid, const std::set<unsigned>& groups);

/// A number that grows whenever code is unloaded from this process: as long as it stays, an address in a
/// loaded library means what it meant before. None where asking could wait for ever, as in a forked child.
std::optional<std::uint64_t> unloads() noexcept;

/// Calls `wait(argument)`, which may raise. Where a cancelled thread is not unwound, one that is cancelled in
/// there calls `leave(argument)` before it ends, with its stack as it is.
void waitOrLeave(void (*wait)(void*), void (*leave)(void*), void* argument);

}  // namespace kes::os
