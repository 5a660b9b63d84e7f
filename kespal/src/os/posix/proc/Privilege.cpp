#include "kespal/proc/Privilege.h"

#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "os/System.h"
#include "os/posix/proc/Identity.h"

namespace kes::proc {

namespace {

[[gnu::always_inline]] inline void becomeMemberOf(const std::vector<gid_t>& groups) {
  check(KES_HERE_IN("setSupplementaryGroups"), setGroups(groups));
}

UserInfo resolved(unsigned uid, unsigned gid) {
  UserInfo user;
  user.uid = uid;
  user.gid = gid;
  user.resolve(/*byName=*/false, /*withGroup=*/false);
  return user;
}

bool changeUserIds(unsigned uid, bool permanent) {
  return ::seteuid(uid) == 0 && (!permanent || changeAllUserIds(uid));
}

}  // namespace

UserInfo Privilege::realProcUser() const { return resolved(::getuid(), ::getgid()); }

UserInfo Privilege::effectiveProcUser() const { return resolved(::geteuid(), ::getegid()); }

void Privilege::resolveUser(UserInfo& user) const { user.resolve(/*byName=*/false, /*withGroup=*/false); }

std::set<unsigned> Privilege::supplementaryGroups() const {
  std::vector<gid_t> groups;
  int count = ::getgroups(0, nullptr);
  if (count > 0) {
    groups.resize(static_cast<std::size_t>(count));
    count = ::getgroups(count, groups.data());
  }
  check(KES_HERE, count);
  return {groups.begin(), groups.begin() + count};
}

void Privilege::setSupplementaryGroups(const std::set<unsigned>& groups) {
  becomeMemberOf(os::groupList(::getegid(), groups));
}

void Privilege::changePrivilege(const UserInfo& user, bool permanent, bool changeGroups) {
  // What is to be restored is only moved once something was changed: that takes no memory.
  UserInfo before = effectiveProcUser();
  if (changeGroups) {
    std::set<unsigned> groups = supplementaryGroups();
    setSupplementaryGroups({});
    groupsSaved_ = !permanent;
    if (!permanent) previousGroups_ = std::move(groups);
  }
  changePrivilegeIds(user, permanent);
  saved_ = !permanent;
  if (!permanent) previousUser_ = std::move(before);
}

void Privilege::changePrivilegeIds(const UserInfo& user, bool permanent) const {
  const bool changed = (!permanent || changeGroupIds(user.gid)) && changeUserIds(user.uid, permanent);
  if (!changed) raiseAt(KES_HERE, OsError(errno));
  if (::getegid() != user.gid || ::geteuid() != user.uid) {
    raiseAt(KES_HERE, RuntimeError("Privilege change silently failed?!"));
  }
  if (permanent && !isChangedForGood(user.uid, user.gid)) {
    raiseAt(KES_HERE, RuntimeError("Permanent privilege change isn't permanent?!"));
  }
}

void Privilege::restorePrivilege() {
  if (!saved_) raiseAt(KES_HERE, UsageError("No previous privilege information stored"));
  // While nothing is changed, as that takes memory.
  const std::vector<gid_t> groups = os::groupList(previousUser_.gid, previousGroups_);
  changePrivilegeIds(previousUser_, /*permanent=*/false);
  saved_ = false;
  if (!groupsSaved_) return;
  becomeMemberOf(groups);
  previousGroups_.clear();
  groupsSaved_ = false;
}

bool Privilege::haveRootPrivilege() {
  if (::geteuid() == 0 || ::getegid() == 0) return true;
  return ::seteuid(0) == 0 || ::setegid(0) == 0;
}

}  // namespace kes::proc
