#include "os/posix/proc/Identity.h"

#include <grp.h>
#include <unistd.h>

#include <cerrno>

#include "os/System.h"
#include "sys/KeepErrno.h"

namespace kes::proc {

namespace {

/// Calls setgroups(), whose count has another type on each system.
template <typename Count>
int setGroupsBy(int (*call)(Count, const gid_t*), const std::vector<gid_t>& groups) noexcept {
  return call(static_cast<Count>(groups.size()), groups.data());
}

/// The way out of a change that went wrong.
void retreatTo(unsigned uid) noexcept {
  const sys::KeepErrno whyItWent;
  (void)!::seteuid(uid);
}

/// Tries to become root again; a success is undone.
bool canComeBack(unsigned uid, unsigned gid) noexcept {
  if (::seteuid(0) == 0) {
    retreatTo(uid);
    return true;
  }
  if (::setegid(0) == 0) {
    (void)!::setegid(gid);
    return true;
  }
  return false;
}

/// Whether nothing of another identity is left. Who is not root changes its effective ids alone, and could
/// return to what the others are.
bool isWhollyChanged(unsigned uid, unsigned gid) noexcept {
  return ::getuid() == uid && ::geteuid() == uid && os::savedUserId() == uid && ::getgid() == gid &&
         ::getegid() == gid && os::savedGroupId() == gid;
}

}  // namespace

int setGroups(const std::vector<gid_t>& groups) noexcept { return setGroupsBy(::setgroups, groups); }

bool changeGroupIds(unsigned gid) noexcept { return ::setegid(gid) == 0 && ::setgid(gid) == 0; }

/// Who is root only by its real or saved id may set nothing but the effective one (EPERM): root is taken back
/// for the one call that changes all three.
bool changeAllUserIds(unsigned uid) noexcept {
  if (::setuid(uid) == 0) return true;
  if (errno != EPERM || (::getuid() != 0 && os::savedUserId() != 0)) return false;
  if (::seteuid(0) != 0) return false;
  const bool changed = ::setuid(uid) == 0;
  if (!changed || ::getuid() != uid || os::savedUserId() != uid) retreatTo(uid);
  return changed;
}

bool isChangedForGood(unsigned uid, unsigned gid) noexcept {
  return !canComeBack(uid, gid) && isWhollyChanged(uid, gid);
}

}  // namespace kes::proc
