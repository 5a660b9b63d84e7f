#pragma once

#include <sys/types.h>

#include <vector>

namespace kes::proc {

/// Whose rights a process has.
struct Identity {
  unsigned uid, gid;
  std::vector<gid_t> groups;  ///< for setgroups()
};

// The single steps of a change of user, which Privilege makes in its process, and a child on its way to a
// program: system calls only. Those that can fail leave errno.

/// Answers as setgroups() does.
int setGroups(const std::vector<gid_t>& groups) noexcept;
/// Gives up all group ids, if the process may.
bool changeGroupIds(unsigned gid) noexcept;
/// Gives up all user ids, if the process may.
bool changeAllUserIds(unsigned uid) noexcept;
/// Whether nothing of another identity is left or can be had again; what a trial regained is given up.
bool isChangedForGood(unsigned uid, unsigned gid) noexcept;

}  // namespace kes::proc
